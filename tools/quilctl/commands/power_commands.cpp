#include "service/tclv_msg.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/session/client.h"

namespace quil::tools {
namespace {

using ::quil::hardware::quilservicemanager::implementation::kCommandLowPower;
using ::quil::hardware::quilservicemanager::implementation::kCommandNormalPower;

void askFor(uint32_t command, const Cli& cli, Result& result) {
    const auto session = cli.connect(cli);
    const Bytes answer = ask(*session, true, requestOf(command, {}));
    result.json = {{"command", command}, {"answer", answer}};
    result.text << hex32(command) << " sent, " << (answer.empty() ? "empty answer" : toHex(answer))
                << '\n';
    if (saysBusy(answer)) throw Failure(kFailed, kBusyText);
    if (!answer.empty()) {
        throw Failure(kFailed, "power: an answer to a request that is never answered");
    }
}

void askForLow(const Cli& cli, Result& result) { askFor(kCommandLowPower, cli, result); }
void askForNormal(const Cli& cli, Result& result) { askFor(kCommandNormalPower, cli, result); }

}  // namespace

void addPowerCommands(CLI::App& app, Cli& cli) {
    CLI::App& power =
        addGroup(app, {"power", "Ask for a power mode", "Example: quilctl power low"});
    addVerb(power, cli, {"low", "Ask for low power", "Example: quilctl power low"}, askForLow);
    addVerb(power, cli, {"normal", "Ask for normal power", "Example: quilctl power normal"},
            askForNormal);
}

}  // namespace quil::tools
