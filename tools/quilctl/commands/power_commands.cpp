#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <ostream>

#include "service/tclv_msg.h"
#include "tools/quilctl/cli.h"
#include "tools/quilctl/session/client.h"

namespace quil::tools {
namespace {

using ::quil::hardware::quilservicemanager::implementation::kCommandLowPower;
using ::quil::hardware::quilservicemanager::implementation::kCommandNormalPower;

int power(const Cli& cli, bool isLow) {
    const auto session = cli.connect(cli);
    const uint32_t command = isLow ? kCommandLowPower : kCommandNormalPower;
    const Bytes answer = ask(*session, true, requestOf(command, {}));
    const bool isEmpty = answer.empty();  // all that this request says when it is taken
    if (cli.options.json) {
        cli.console.out << nlohmann::json{{"command", command}, {"answer", answer}}.dump() << '\n';
    } else {
        cli.console.out << hex32(command) << " sent, " << (isEmpty ? "empty answer" : toHex(answer))
                        << '\n';
    }
    if (saysBusy(answer)) cli.console.err << kBusyText;
    return isEmpty ? kOk : kFailed;
}

}  // namespace

void addPowerCommands(CLI::App& app, Cli& cli) {
    CLI::App* command = app.add_subcommand("power", "Ask for a power mode");
    command->require_subcommand(1);
    command->footer("Example: quilctl power low");
    for (const bool isLow : {true, false}) {
        const std::string name = isLow ? "low" : "normal";
        CLI::App* mode = command->add_subcommand(name, "Ask for " + name + " power");
        mode->footer("Example: quilctl power " + name);
        mode->callback([&cli, isLow] { cli.action = [&cli, isLow] { return power(cli, isLow); }; });
    }
}

}  // namespace quil::tools
