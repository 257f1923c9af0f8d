#include "tools/quilctl/cli.h"

#include <CLI/CLI.hpp>
#include <ostream>
#include <stdexcept>

namespace quil::tools {
namespace {

int act(const Cli& cli) {
    try {
        return cli.action();
    } catch (const std::runtime_error& error) {
        cli.console.err << "quilctl: " << error.what() << '\n';
        return kNoBoard;
    }
}

}  // namespace

int run(const Program& program, int argc, const char* const* argv, const Console& console) {
    Cli cli{{}, console, program.connect, {}};
    CLI::App app(program.purpose, "quilctl");
    app.footer(program.footer);
    app.require_subcommand(1);
    app.fallthrough();
    program.addCommands(app, cli);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error, console.out, console.err) == 0 ? kOk : kUsage;
    }
    return act(cli);
}

}  // namespace quil::tools
