// What a served board hears from outside. Input: a byte of mode; then either what a client writes
// to the socket, in pieces of the size in the mode, or what a browser, or somebody else on the
// machine, sends to the page's server.
#include <httplib.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/targets.h"
#include "tools/quilctl/output/progress_bar.h"
#include "tools/quilctl/output/wrap.h"
#include "tools/quilctl/page/page_gate.h"
#include "tools/quilctl/serve/protocol.h"

namespace quil::fuzz {
namespace {

constexpr uint8_t kIsHttp = 0x80;
constexpr int kPort = 8080;
constexpr char kToken[] = "00112233445566778899aabbccddeeff";  // the inputs know it
constexpr char kHost[] = "127.0.0.1:8080", kOrigin[] = "http://127.0.0.1:8080";
constexpr char kCookie[] = "quil_8080=00112233445566778899aabbccddeeff";

// A client's screen is as wide as the client says.
void checkScreen(const tools::Screen& screen) {
    constexpr char kText[] = "words, that are wrapped where the screen ends, and  a column more\n";
    const std::string wrapped = tools::wrapped(kText, screen.columns);
    const auto count = [](std::string_view text) {
        return std::count_if(text.begin(), text.end(), [](char c) { return c > ' '; });
    };
    check(count(wrapped) == count(kText) && wrapped.size() < 1000, "wrapped it is another text");
    check(tools::barOf(50, "1 of 2", screen.columns).size() < 100, "a bar without an end");
}

void checkRequest(const std::string& line) {
    try {
        const tools::Request request = tools::requestIn(line);
        const std::string again = tools::protocolLine(request);
        check(!again.empty() && again.back() == '\n', "a request without its line end");
        check(again.find('\n') == again.size() - 1, "a request of two lines");
        const tools::Request read = tools::requestIn(again);
        check(read.kind == request.kind && read.kinds == request.kinds, "watches something else");
        check(read.words == request.words && read.atOnce == request.atOnce, "runs something else");
        check(read.folder == request.folder && read.board == request.board, "runs it elsewhere");
        check(tools::protocolLine(read) == again, "said again it is something else");
        checkScreen(request.out);
    } catch (const tools::Failure& failure) {
        check(failure.what()[0] != '\0', "a refusal without a word");
    }
}

// As the server takes it off a socket.
void checkSocket(std::span<const uint8_t> bytes, size_t piece) {
    tools::Lines lines;
    std::string taken;
    for (size_t at = 0; at < bytes.size(); at += piece) {
        const std::string part = textOf(bytes.subspan(at, std::min(piece, bytes.size() - at)));
        lines.add(part.data(), part.size());
        while (const auto line = lines.next()) {
            taken += *line + "\n";
            checkRequest(*line);
        }
    }
    const std::string all = textOf(bytes);
    check(taken + all.substr(all.size() - lines.waiting()) == all, "bytes lost between the lines");
}

// A connection whose other end has said all it will ever say.
class EndedConnection final : public httplib::Stream {
  public:
    explicit EndedConnection(std::string text) : mText(std::move(text)) {}

    bool is_readable() const override { return true; }
    bool is_writable() const override { return true; }
    ssize_t read(char* into, size_t size) override {
        const size_t count = std::min(size, mText.size() - mAt);
        std::copy_n(mText.begin() + static_cast<ptrdiff_t>(mAt), count, into);
        mAt += count;
        return static_cast<ssize_t>(count);
    }
    ssize_t write(const char* /*text*/, size_t size) override { return static_cast<ssize_t>(size); }
    void get_remote_ip_and_port(std::string& ip, int& port) const override { ip = "?", port = 0; }
    void get_local_ip_and_port(std::string& ip, int& port) const override { ip = "?", port = 0; }
    socket_t socket() const override { return INVALID_SOCKET; }

  private:
    const std::string mText;
    size_t mAt = 0;
};

// The page's server without its sockets: the same gate before every route.
class Pages final : public httplib::Server {
  public:
    Pages() {
        set_payload_max_length(16384);
        set_pre_routing_handler([this](const auto& request, auto& response) {
            const auto refusal = mGate.refusalFor(request);
            if (refusal) response.status = refusal->status;
            const bool isOver = refusal || mGate.isFirstVisit(request);
            mIsAdmitted = !isOver;
            return isOver ? HandlerResponse::Handled : HandlerResponse::Unhandled;
        });
        Get("/", [](const auto& /*request*/, auto& /*response*/) {});
        Post("/run", [this](const auto& request, auto& /*response*/) {
            mIsRun = true;
            mBody = request.body;
        });
    }

    void hear(const std::string& text) {
        mIsAdmitted = mIsRun = false;
        EndedConnection said(text);
        bool isClosed = false;
        process_request(said, true, isClosed, [](auto& /*request*/) {});
        const auto says = [&text](const char* what) { return text.find(what) != text.npos; };
        check(!mIsAdmitted || (says(kCookie) && says(kHost)), "let in without the token");
        check(!mIsRun || says(kOrigin), "an action that another page may have sent");
        if (mIsRun) checkCommand();
    }

  private:
    void checkCommand() const {
        const auto command = tools::pageCommandIn(mBody);
        if (!command) return;
        const std::vector<std::string> before = {"--json", "--progress", "json"};
        check(command->words.size() > before.size() &&
                  std::equal(before.begin(), before.end(), command->words.begin()),
              "no command");
        const auto verb = command->words.begin() + static_cast<ptrdiff_t>(before.size());
        constexpr std::array<std::string_view, 11> kVerbs = {
            "status", "power", "fault", "get",    "set",     "self-test",
            "boot",   "mcu",   "fpga",  "config", "commands"};
        const bool isReset = *verb == "board" && std::next(verb) != command->words.end() &&
                             *std::next(verb) == "reset";
        const bool isKnown =
            isReset || std::find(kVerbs.begin(), kVerbs.end(), *verb) != kVerbs.end();
        check(isKnown, "a command that the page has no business with");
        for (const char* writes : {"--report", "--trace", "--board", "--out", "--output"}) {
            const auto begins = [=](const auto& word) { return word.rfind(writes, 0) == 0; };
            check(std::none_of(command->words.begin(), command->words.end(), begins),
                  "an option that writes a file, or takes another board");
        }
    }

    const tools::PageGate mGate{kPort, kToken};
    bool mIsAdmitted = false, mIsRun = false;
    std::string mBody;
};

}  // namespace

void servedRequests(std::span<const uint8_t> bytes) {
    Input input(bytes);
    const uint8_t mode = input.byte();
    if ((mode & kIsHttp) == 0) return checkSocket(input.rest(), size_t{mode} + 1);
    static auto& pages = *new Pages;
    pages.hear(textOf(input.rest()));
}

}  // namespace quil::fuzz
