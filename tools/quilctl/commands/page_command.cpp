#include <unistd.h>

#include <ostream>

#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/page/page_process.h"
#include "tools/quilctl/page/page_server.h"
#include "tools/quilctl/serve/board_socket.h"
#include "tools/quilctl/session/interruption.h"

namespace quil::tools {
namespace {

constexpr int kBehindTheBoard = 10;  // a page may be late, a board may not

struct PageArguments {
    int port = 0;
};

// Until the board's server ends, or the program is asked to end.
void waitForTheEnd(ServerConnection& server) {
    constexpr int kForEver = -1;
    while (server.receiveFor(kForEver)) {
    }
}

void page(const Cli& cli, const PageArguments& arguments, Result& result) {
    auto server = ServerConnection::to(cli.options.boardDirectory);
    if (!server) throw Failure(kNoBoard, cli.options.boardDirectory + " is not served any more");
    server->receiveFor(0);  // it may refuse
    [[maybe_unused]] const int niceness = nice(kBehindTheBoard);
    const PageServer page(bytesIn(server->greeting().at("board")), arguments.port);
    result.json = {{"address", page.address()}};
    result.text << page.address() << '\n';
    result.show();
    waitForTheEnd(*server);
}

}  // namespace

void addPageCommand(CLI::App& app, Cli& cli) {
    const auto [command, arguments] =
        addVerb(app, cli,
                {"page", "Show a served board in the browser",
                 "Prints the address, which is for this user alone: it has a token that the page\n"
                 "needs (docs/workbench.md). Ctrl-C, a termination and the end of the board's\n"
                 "server are its normal end.\n"
                 "Example: quilctl --board my-board page --port 8080",
                 kBoardOption, Place::kOnClient},
                page);
    command.add_option("--port", arguments.port, "Port on 127.0.0.1 (default: a free one)")
        ->check(CLI::Range(0, 65535));
}

}  // namespace quil::tools
