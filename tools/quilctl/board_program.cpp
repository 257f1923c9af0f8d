// quilctl on a workstation: every command acts on a simulated board.
#include <stdlib.h>

#include <CLI/CLI.hpp>

#include "board/board.h"
#include "tools/quilctl/cli.h"
#include "tools/quilctl/serve/forwarding.h"
#include "tools/quilctl/serve/served_board.h"
#include "tools/quilctl/session/board_session.h"
#include "tools/quilctl/session/trace_files.h"

namespace quil::tools {
namespace {

constexpr char kExamples[] =
    "  quilctl get 1\n"
    "  quilctl --trace link.vcd set 0x102 01 0A\n"
    "  quilctl board new my-board --product Kestrel\n"
    "  quilctl --board my-board config show";

CLI::Validator traceName() {
    return CLI::Validator(
        [](std::string& name) -> std::string {
            if (traceTargetOf(name).render != nullptr) return {};
            return "'" + name +
                   "' must end in .txt, .json, .pftrace or .vcd, or begin with text:, json:, " +
                   "pftrace: or vcd:";
        },
        "{text:,json:,pftrace:,vcd:}");
}

CLI::Validator productName() {
    return CLI::Validator(
        [](std::string& name) -> std::string {
            if (board::productByName(name)) return {};
            return "there is no product '" + name + "': Heron, Kestrel or Wren_t507";
        },
        "{Heron,Kestrel,Wren_t507}");
}

CLI::Validator namedDirectory() {
    return CLI::Validator(
        [](std::string& name) -> std::string { return name.empty() ? "the name is empty" : ""; },
        "DIR");
}

void addGlobalOptions(CLI::App& app, Options& options) {
    const char* environment = getenv("QUIL_BOARD");
    if (environment != nullptr) options.boardDirectory = environment;
    if (const auto* call = ServedBoard::call()) options.boardDirectory = call->directory;
    app.add_option("--board", options.boardDirectory,
                   "Board directory to power (default: QUIL_BOARD of the environment, "
                   "or a temporary one)")
        ->type_name("DIR")
        ->check(namedDirectory());
    app.add_option("--wait", options.wait,
                   "Seconds to wait for a board directory that is in use (default 10)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, 86400.0));
    app.add_option("--product", options.product, "Product of a new board (default: Heron)")
        ->type_name("NAME")
        ->check(productName());
    app.add_option("--trace", options.traceFiles,
                   "Write what happened on the board to a .txt, .json (trace events), .pftrace "
                   "(Perfetto) or .vcd (waveforms) file, or to standard output, as text (-) or as "
                   "FORMAT:-; the "
                   "result is on the error stream then. May be given several times")
        ->type_name("FILE")
        ->take_all()
        ->allow_extra_args(false)
        ->check(traceName());
    app.add_option("--log-level", options.logLevel, "Log level of the library for this run")
        ->check(CLI::IsMember({"D", "I", "W", "E"}));
    app.add_option("--seed", options.seed, "Seed of the order in which threads run; 0: in turn");
    app.add_flag("--realtime", options.realtime, "Board time is real time");
}

void addCommands(CLI::App& app, Cli& cli) {
    addGlobalOptions(app, cli.options);
    addRequestCommands(app, cli);
    addSelfTestCommands(app, cli);
    addPowerCommands(app, cli);
    addConfigCommands(app, cli);
    addFrameCommands(app, cli);
    addBoardCommands(app, cli);
    addServeCommand(app, cli);
    addServedCommands(app, cli);
    addMonitorCommand(app, cli);
    addTraceCommands(app, cli);
    addBootCommand(app, cli);
    addFpgaCommands(app, cli);
    addScreenCommands(app, cli);
    addMcuCommands(app, cli);
    addDemoCommand(app, cli);
    addShellCommands(app, cli);
}

std::unique_ptr<ServiceSession> connect(const Cli& cli) {
    auto session = std::make_unique<BoardSession>(cli.options, cli.console);
    session->startService();
    return session;
}

}  // namespace

const Program kBoardProgram = {"Talk to the board's hardware service on a simulated board.",
                               kExamples, addCommands, connect, forwardToServer};

}  // namespace quil::tools
