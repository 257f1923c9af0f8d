#include "tools/quilctl/serve/serving.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <istream>
#include <ostream>
#include <streambuf>

#include "board/core/real_calls.h"
#include "tools/quilctl/cli.h"

namespace quil::tools {
namespace {

// What a command prints on a stream, sent when it is flushed or grows long.
class SentText : public std::streambuf {
  public:
    SentText(Server& server, Server::ClientId client, const char* stream)
        : mServer(server), mClient(client), mStream(stream) {}
    ~SentText() override { SentText::sync(); }
    SentText(const SentText&) = delete;
    SentText& operator=(const SentText&) = delete;

  protected:
    int_type overflow(int_type character) override {
        if (character != traits_type::eof()) mText += traits_type::to_char_type(character);
        if (mText.size() >= kMost) sync();
        return traits_type::not_eof(character);
    }
    std::streamsize xsputn(const char* text, std::streamsize count) override {
        mText.append(text, static_cast<size_t>(count));
        if (mText.size() >= kMost) sync();
        return count;
    }
    int sync() override {
        if (!mText.empty()) mServer.say(mClient, {{mStream, jsonOfBytes(mText)}});
        mText.clear();
        return 0;
    }

  private:
    static constexpr size_t kMost = 65536;
    Server& mServer;
    const Server::ClientId mClient;
    const char* const mStream;
    std::string mText;
};

// The words of the command, without what is an option.
std::string shownWords(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

}  // namespace

Serving::Serving(const std::filesystem::path& directory, ServedBoard::Power power,
                 const std::filesystem::path& ports)
    : mDirectory(std::filesystem::absolute(directory)),
      mFolder(board::real().open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)),
      mBoard(mDirectory, power, [this](const board::Event& event) { mServer.tell(event); }),
      mServer(listenIn(mDirectory), mDirectory.string(),
              [this](const Server::Job& job) { act(job, true); }) {
    if (ports.empty()) return;
    mPorts.emplace(ports, mBoard, [this] { mServer.callOwner(); });
    mBoard.onPower([this](board::Board& board) { mPorts->connectTo(board); });
}

Serving::~Serving() {
    mBoard.powerOff();  // while the server still hears of it
    removeSocket(mDirectory);
}

void Serving::run(const std::function<void()>& onReady) {
    mBoard.powerOn();
    onReady();
    while (const auto job = mServer.next()) {
        job->client == Server::kNobody ? goOn() : act(*job, false);
    }
    mBoard.powerOff();
}

void Serving::goOn() {
    if (!mBoard.goOn()) mServer.callOwner();
}

void Serving::close() { mServer.close(); }

void Serving::act(const Server::Job& job, bool atOnce) {
    if (!atOnce) mBoard.setCommand(shownWords(job.request.words));
    int code = kInternal;
    {
        const ServedBoard::Call call{mBoard, job.request.board, atOnce};
        const ServedBoard::Calling calling(call);
        code = runCommand(job);
    }
    if (!atOnce) mBoard.setCommand("");
    mServer.finish(job.client, code);
}

// Files are named as the client names them.
int Serving::runCommand(const Server::Job& job) {
    const Request& request = job.request;
    const bool isMoved = !ServedBoard::call()->atOnce;
    SentText outText(mServer, job.client, "out"), errText(mServer, job.client, "err");
    std::ostream out(&outText), err(&errText);
    std::istream in(nullptr);
    if (isMoved && chdir(request.folder.c_str()) != 0) {
        err << "quilctl: the board's server cannot work in "
            << failureOf(kNoBoard, request.folder, errno).what() << '\n';
        return kNoBoard;
    }
    std::vector<const char*> words = {"quilctl"};
    for (const std::string& word : request.words) words.push_back(word.c_str());
    const int code = quil::tools::run(kBoardProgram, static_cast<int>(words.size()), words.data(),
                                      {in, out, err, request.out, request.err});
    if (isMoved && fchdir(mFolder.get()) != 0) return kInternal;
    return code;
}

}  // namespace quil::tools
