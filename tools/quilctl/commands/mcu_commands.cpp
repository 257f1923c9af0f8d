// The MCU's firmware version, and the update flow.
#include <filesystem>
#include <ostream>

#include "config/config_info.h"
#include "host/mcu_bring_up.h"
#include "isp/mcu_update.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/programming/contract_checks.h"
#include "tools/quilctl/programming/programming_run.h"
#include "tools/quilctl/session/mcu_link.h"
#include "tools/quilctl/session/recording.h"

namespace quil::tools {
namespace {

constexpr size_t kVersionMax = 15;  // characters

std::string shown(const std::string& version) { return version.empty() ? "no answer" : version; }

void version(const Cli& cli, Result& result) {
    BoardSession session(cli.options, cli.console);
    const McuLink link;
    const std::string running = link.version();
    const std::string recorded = session.board().properties().get(isp::kMcuVersionProperty, "");
    result.json = {
        {"running", running}, {"shipped", config_info->mcu_fw_version}, {"recorded", recorded}};
    result.text << "running   " << shown(running) << "\nshipped   " << config_info->mcu_fw_version
                << "  " << config_info->mcu_fw_path << "\nrecorded  "
                << (recorded.empty() ? "never programmed" : recorded) << '\n';
    if (running.empty()) {
        throw Failure(
            kFailed, "the MCU does not answer",
            "quilctl mcu update programs the shipped image and shows the step that fails");
    }
}

ProgrammingTarget shippedTarget(const board::Board& board) {
    std::error_code error;
    const auto size = std::filesystem::file_size(board.hostPath(config_info->mcu_fw_path), error);
    return {config_info->mcu_uart_path, config_info->mcu_serial,
            error ? 0 : static_cast<size_t>(size)};
}

struct UpdateArguments {
    std::string installed;
    bool asIs = false;
};

Options optionsFor(const Cli& cli, const UpdateArguments& arguments) {
    Options options = cli.options;
    options.mcuInstalled = arguments.installed;
    return options;
}

void update(const Cli& cli, const UpdateArguments& arguments, Result& result) {
    BoardSession session(optionsFor(cli, arguments), cli.console);
    const McuLink link;
    checkForContract(session.board().hostPath(config_info->mcu_fw_path).string(),
                     config_info->mcu_serial, arguments.asIs);
    const std::string before = link.version();
    const ProgrammingOutcome outcome =
        runProgramming(session, cli.console, shippedTarget(session.board()),
                       [] { return host::bringMcuUpToDate() == host::McuFirmware::kReprogrammed; });
    const std::string shipped = config_info->mcu_fw_version;
    result.json = {{"before", before}, {"after", before}};
    // The flow says -1 for "nothing to do" as it does for a failure.
    if (outcome.attempts == 0 && before == shipped) {
        result.json.update({{"done", true}, {"attempts", 0}});
        result.text << "the MCU runs " << before << " as shipped: nothing to do\n";
        return;
    }
    session.board().runFor(kMcuStart);
    const std::string after = link.version();
    result.json["after"] = after;
    addOutcome(result, cli.console.screen, outcome);
    result.text << shown(before) << " -> " << shown(after) << '\n';
    if (!outcome.isDone) {
        throw Failure(kFailed, "not programmed: " + reasonOf(outcome), remedyOf(outcome));
    }
    if (after != shipped) {
        throw Failure(kFailed, "the MCU does not run " + shipped + ": " + shown(after),
                      remedyOf(outcome));
    }
}

CLI::Validator versionText() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            if (!text.empty() && text.size() <= kVersionMax) return {};
            return "'" + text + "' is no version: 1 to 15 characters";
        },
        "VERSION");
}

void addUpdate(CLI::App& mcu, Cli& cli) {
    const auto [command, arguments] =
        addVerb(mcu, cli,
                {"update", "Bring the MCU to the shipped version, as a boot does",
                 "Asks the MCU for its version, compares it with the shipped one, programs the\n"
                 "shipped image in up to five attempts, records its version and opens the link\n"
                 "again.\n"
                 "Exit code 1 when the MCU does not run the shipped version in the end.\n"
                 "Example: quilctl mcu update --installed V0.9.0"},
                update);
    command
        .add_option("--installed", arguments.installed,
                    "Let the MCU have an image of this version before")
        ->check(versionText());
    command.add_flag("--as-is", arguments.asIs, "Also an image that does not suit the flow");
    addReportOption(command, cli);
}

}  // namespace

void addMcuCommands(CLI::App& app, Cli& cli) {
    CLI::App& mcu = addGroup(
        app, {"mcu", "The MCU's firmware", "Example: quilctl mcu update --installed V0.9.0"});
    addVerb(mcu, cli,
            {"version", "Ask the MCU for its firmware's version",
             "Exit code 1 when the MCU does not answer.\n"
             "Example: quilctl --board my-board mcu version"},
            version);
    addUpdate(mcu, cli);
    addMcuFlashCommands(mcu, cli);
    addMcuCareCommands(mcu, cli);
    addMcuRescueCommand(mcu, cli);
    addMcuProgramCommands(mcu, cli);
    addMcuModelCommand(mcu, cli);
}

}  // namespace quil::tools
