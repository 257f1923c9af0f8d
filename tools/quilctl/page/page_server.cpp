#include "tools/quilctl/page/page_server.h"

#include <memory>
#include <sstream>
#include <utility>

#include "board/core/bytes.h"
#include "board/core/real_calls.h"
#include "board/core/whole_file.h"
#include "tools/quilctl/cli.h"
#include "tools/quilctl/page/page_files.h"
#include "tools/quilctl/page/report.h"
#include "tools/quilctl/page/timeline_rows.h"
#include "tools/quilctl/serve/board_socket.h"
#include "tools/quilctl/traces/event_arguments.h"

namespace quil::tools {
namespace {

constexpr char kHost[] = "127.0.0.1";
constexpr size_t kBodyMost = 16384, kThreads = 64;
constexpr size_t kBytesShown = 4096, kSpansKept = 25000;  // of an event; for changes
constexpr int kEventsInAMessage = 2000;
constexpr int kBetweenMessagesMs =
    50;                          // sending more often would take processor time from the board
constexpr int kBeatMs = 500;     // how soon a reader that is gone is noticed
constexpr int kIdleSeconds = 1;  // of a connection, which the server's end waits for

// Nothing but the page's own files, and no other page around it.
const httplib::Headers kHeaders = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src data:; "
     "base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cache-Control", "no-store"},
};

const char* typeOf(std::string_view name) {
    if (name.ends_with(".js")) return "text/javascript; charset=utf-8";
    return name.ends_with(".css") ? "text/css; charset=utf-8" : "text/html; charset=utf-8";
}

void refuse(httplib::Response& response, int status, const std::string& why) {
    response.status = status;
    response.set_content(why + "\n", "text/plain; charset=utf-8");
}

// A command that needs no board, here.
Json runHere(const std::vector<std::string>& words) {
    std::vector<const char*> argv = {"quilctl"};
    for (const std::string& word : words) argv.push_back(word.c_str());
    std::istringstream in;
    std::ostringstream out, err;
    const int code = run(kBoardProgram, static_cast<int>(argv.size()), argv.data(), {in, out, err});
    return {{"exit", code}, {"out", jsonOfBytes(out.str())}, {"err", jsonOfBytes(err.str())}};
}

void answer(httplib::Response& response, const Json& document) {
    response.set_content(protocolLine(document), "application/json");
}

std::shared_ptr<ServerConnection> connectionTo(const std::string& directory) {
    auto server = ServerConnection::to(directory);
    if (!server) throw Failure(kNoBoard, "the board is not served any more");
    return std::make_shared<ServerConnection>(std::move(*server));
}

std::string streamed(const Json& document) { return "data: " + protocolLine(document) + "\n"; }

// What the page gets: spans that are new or have changed. All events that are waiting share a
// message.
class SpanStream {
  public:
    // For this line and those that have come since.
    std::string of(const Json& line, ServerConnection& server) {
        add(line);
        for (int i = 0; i < kEventsInAMessage; ++i) {
            const auto next = server.receiveFor(0);
            if (!next || next->empty()) break;
            add(*next);
        }
        endMessage();
        return mText.empty() ? ":\n\n" : std::exchange(mText, "");
    }

  private:
    void add(const Json& line) {
        if (line.contains("event")) return addSpans(eventIn(line.at("event")));
        endMessage();
        if (line.contains("watching")) mText += streamed({{"lanes", laneNames()}});
        if (line.contains("error")) mText += streamed({{"error", line.at("error")}});
        if (line.contains("lost")) mText += streamed({{"lost", line.at("lost")}});
    }
    void addSpans(const board::Event& event) {
        const auto number = static_cast<int64_t>(mEvents++);
        for (const auto& [id, span] : mTimeline.see(event)) {
            if (id == number) {
                mRows.push_back(rowOf(id, span, &event, kBytesShown));
            } else {
                mRows.push_back(id < 0 ? rowOf(id, span, nullptr, 0) : changeOf(id, span));
            }
        }
    }
    void endMessage() {
        if (mRows.empty()) return;
        mText += streamed({{"spans", std::exchange(mRows, Json::array())}});
    }

    LiveTimeline mTimeline{kSpansKept};
    uint64_t mEvents = 0;
    Json mRows = Json::array();
    std::string mText;
};

// An empty object when there is none for a while, a refusal as an object with "error".
std::optional<Json> spokenLineOf(ServerConnection& server) {
    try {
        return server.receiveFor(kBeatMs);
    } catch (const Failure& failure) {
        return Json{{"error", failure.what()}};
    }
}

bool isLast(const Json& line) { return line.contains("exit") || line.contains("error"); }

}  // namespace

PageServer::PageServer(std::string directory, int port)
    : mDirectory(std::move(directory)), mGate{port, newToken()} {
    mServer.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
    mServer.set_default_headers(kHeaders);
    mServer.set_keep_alive_timeout(kIdleSeconds);
    mServer.set_payload_max_length(kBodyMost);
    mServer.set_pre_routing_handler(
        [this](const auto& request, auto& response) { return admit(request, response); });
    addRoutes();
    if (port == 0) mGate.port = mServer.bind_to_any_port(kHost);
    if (mGate.port < 0 || (port != 0 && !mServer.bind_to_port(kHost, port))) {
        throw Failure(kNoBoard, "port " + std::to_string(port) + " of " + kHost + " cannot be had");
    }
    mThread = std::thread([this] { mServer.listen_after_bind(); });
    while (!mServer.is_running()) std::this_thread::yield();
}

PageServer::~PageServer() {
    mEnds = true;
    mServer.stop();
    mThread.join();
}

// The token goes from the address into a cookie, out of sight and of the browser's history.
PageServer::Handled PageServer::admit(const httplib::Request& request,
                                      httplib::Response& response) const {
    if (const auto refusal = mGate.refusalFor(request)) {
        refuse(response, refusal->status, refusal->why);
        return Handled::Handled;
    }
    if (!mGate.isFirstVisit(request)) return Handled::Unhandled;
    response.set_header("Set-Cookie", mGate.cookieName() + "=" + mGate.token +
                                          "; Path=/; HttpOnly; SameSite=Strict");
    response.set_redirect("/", 303);
    return Handled::Handled;
}

void PageServer::addRoutes() {
    for (const auto& [name, content] : pageFiles()) {
        const auto give = [name = name, content = content](const auto& /*request*/,
                                                           auto& response) {
            response.set_content(content.data(), content.size(), typeOf(name));
        };
        mServer.Get(name == "/index.html" ? "/" : std::string(name), give);
    }
    mServer.Post("/run", [this](const auto& request, auto& response) { run(request, response); });
    mServer.Get("/screen",
                [this](const auto& /*request*/, auto& response) { showScreen(response); });
    mServer.Get("/events", [this](const auto& /*request*/, auto& response) { stream(response); });
}

// What the board's server says, as it comes: a line each.
void PageServer::run(const httplib::Request& request, httplib::Response& response) const {
    const auto command = pageCommandIn(request.body);
    if (!command) return refuse(response, 400, "the page runs no such command");
    if (command->isLocal) return answer(response, runHere(command->words));
    try {
        const auto server = connectionTo(mDirectory);
        server->send({.words = command->words,
                      .folder = "/",
                      .board = mDirectory,
                      .atOnce = command->atOnce});
        response.set_chunked_content_provider(
            "application/x-ndjson", [this, server](size_t /*offset*/, httplib::DataSink& sink) {
                const auto line = mEnds ? std::nullopt : spokenLineOf(*server);
                if (!line) return false;
                const std::string text = line->empty() ? "\n" : protocolLine(*line);
                const bool isRead = sink.write(text.data(), text.size());
                if (isLast(*line)) sink.done();
                return isRead;
            });
    } catch (const Failure& failure) {
        refuse(response, 503, failure.what());
    }
}

void PageServer::showScreen(httplib::Response& response) const {
    const auto content = board::readWholeFile(mDirectory + "/rootfs/dev/block/by-name/screen");
    if (!content) return refuse(response, 404, "there is no screen partition");
    answer(response, shownScreenOf(board::bytesOf(*content)));
}

// A reader that is slow holds up its own thread alone; the board's server counts what it misses.
void PageServer::stream(httplib::Response& response) {
    if (++mReaders > kReadersMost) {
        --mReaders;
        return refuse(response, 503, "too many pages are open");
    }
    const auto leave = [this](bool /*success*/) { --mReaders; };
    try {
        const auto server = connectionTo(mDirectory);
        server->send({.kind = Request::Kind::kWatch});
        const auto spans = std::make_shared<SpanStream>();
        response.set_chunked_content_provider(
            "text/event-stream",
            [this, server, spans](size_t /*offset*/, httplib::DataSink& sink) {
                const auto line = mEnds ? std::nullopt : spokenLineOf(*server);
                if (!line) return false;
                try {
                    const std::string text = spans->of(*line, *server);
                    const bool isRead = sink.write(text.data(), text.size());
                    board::real().poll(nullptr, 0, kBetweenMessagesMs);
                    return isRead;
                } catch (const std::exception&) {
                    return false;  // the server speaks another protocol
                }
            },
            leave);
    } catch (const Failure& failure) {
        leave(false);
        refuse(response, 503, failure.what());
    }
}

}  // namespace quil::tools
