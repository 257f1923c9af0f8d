#include "tools/quilctl/serve/forwarding.h"

#include <errno.h>
#include <unistd.h>

#include <ostream>

#include "tools/quilctl/serve/board_socket.h"
#include "tools/quilctl/serve/served_board.h"

namespace quil::tools {
namespace {

constexpr char kGoesOn[] =
    "while the served board was at work; it goes on (quilctl power cut stops it)";

std::string here() {
    std::error_code error;
    const auto folder = std::filesystem::current_path(error);
    if (!error) return folder.string();
    throw failureOf(kNoBoard, "the working directory is gone (cd to another one)", error.value());
}

Failure nobodyServes(const std::string& directory) {
    if (directory.empty()) {
        return {kUsage, "name the directory of a served board with --board",
                "quilctl serve keeps a board powered"};
    }
    return {kNoBoard, directory + " is not served",
            "quilctl --board " + directory + " serve keeps its board powered"};
}

// On the server. A client of another make may ask for anything.
void refuseOtherPlace(const ServedBoard::Call& call, Place place, bool hasBoard) {
    if (!hasBoard || place == Place::kOnClient || place == Place::kOff) {
        throw Failure(kUsage, "this command does not run on a served board");
    }
    if (call.atOnce && place != Place::kAtOnce) {
        throw Failure(kUsage, "this command has to wait for its turn");
    }
}

void write(std::ostream& stream, const Json& text) {
    stream << bytesIn(text);
    stream.flush();
}

int runOn(ServerConnection& server, const Request& request, const Streams& streams) {
    server.send(request);
    while (const auto answer = server.receive(kGoesOn)) {
        if (answer->contains("out")) write(streams.out, answer->at("out"));
        if (answer->contains("err")) write(streams.err, answer->at("err"));
        if (!answer->contains("exit")) continue;
        if (!streams.out) {
            throw failureOf(kNotWritten, "standard output cannot be written", errno);
        }
        return answer->value("exit", static_cast<int>(kInternal));
    }
    throw Failure(kNoBoard, "the board's server (" + server.server() +
                                ") has ended in the middle of the command");
}

}  // namespace

std::optional<int> forwardToServer(const Cli& cli, const CommandLine& line,
                                   const Streams& streams) {
    const bool hasBoard = (cli.boardOptions & kBoardOption) != 0;
    if (const auto* call = ServedBoard::call()) {
        refuseOtherPlace(*call, cli.place, hasBoard);
        return {};
    }
    if (!hasBoard) return {};
    const std::string& directory =
        cli.directory.empty() ? cli.options.boardDirectory : cli.directory;
    auto server = directory.empty() ? std::nullopt : ServerConnection::to(directory);
    const bool runsAnywhere = cli.place == Place::kInTurn || cli.place == Place::kOff;
    if (!server && !runsAnywhere) throw nobodyServes(directory);
    if (!server || cli.place == Place::kOnClient) return {};
    if (cli.place == Place::kOff) {
        throw Failure(kNoBoard,
                      directory + " is served by " + server->server() +
                          ", and this needs a board that is switched off",
                      "end quilctl serve first (Ctrl-C)");
    }
    return runOn(*server,
                 {.words = {line.words + 1, line.words + line.count},
                  .folder = here(),
                  .board = directory,
                  .atOnce = cli.place == Place::kAtOnce,
                  .out = streams.outScreen,
                  .err = streams.errScreen},
                 streams);
}

}  // namespace quil::tools
