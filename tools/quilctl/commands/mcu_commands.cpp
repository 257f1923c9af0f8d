// The MCU's firmware version, and the update flow.
#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>

#include "config/config_info.h"
#include "host/mcu_bring_up.h"
#include "isp/mcu_update.h"
#include "tools/quilctl/files/validators.h"
#include "tools/quilctl/programming/mcu.h"
#include "tools/quilctl/programming/programming_run.h"

namespace quil::tools {
namespace {

constexpr size_t kVersionMax = 15;  // characters

std::string shown(const std::string& version) { return version.empty() ? "no answer" : version; }

int version(const Cli& cli) {
    BoardSession session(cli.options, cli.console);
    const McuLink link;
    const std::string running = link.version();
    const std::string recorded = session.board().properties().get(isp::kMcuVersionProperty, "");
    std::ostream& out = cli.console.out;
    if (cli.options.json) {
        out << nlohmann::json{{"running", running},
                              {"shipped", config_info->mcu_fw_version},
                              {"recorded", recorded}}
                   .dump()
            << '\n';
    } else {
        out << "running   " << shown(running) << "\nshipped   " << config_info->mcu_fw_version
            << "  " << config_info->mcu_fw_path << "\nrecorded  "
            << (recorded.empty() ? "never programmed" : recorded) << '\n';
    }
    return running.empty() ? kFailed : kOk;
}

void addVersion(CLI::App& mcu, Cli& cli) {
    CLI::App* command = mcu.add_subcommand("version", "Ask the MCU for its firmware's version");
    command->footer(
        "Exit code 1 when the MCU does not answer.\n"
        "Example: quilctl --board my-board mcu version");
    command->callback([&cli] { cli.action = [&cli] { return version(cli); }; });
}

ProgrammingTarget shippedTarget(const board::Board& board) {
    std::error_code error;
    const auto size = std::filesystem::file_size(board.hostPath(config_info->mcu_fw_path), error);
    return {config_info->mcu_uart_path, config_info->mcu_serial,
            error ? 0 : static_cast<size_t>(size)};
}

int sayUpToDate(const Cli& cli, const std::string& version) {
    if (cli.options.json) {
        cli.console.out
            << nlohmann::json{{"done", true}, {"attempts", 0}, {"running", version}}.dump() << '\n';
    } else {
        cli.console.out << "the MCU runs " << version << " as shipped: nothing to do\n";
    }
    return kOk;
}

int update(const Cli& cli) {
    BoardSession session(cli.options, cli.console);
    const McuLink link;
    const std::string before = link.version();
    const ProgrammingOutcome outcome =
        runProgramming(session, cli.console, shippedTarget(session.board()),
                       [] { return host::bringMcuUpToDate() == host::McuFirmware::kReprogrammed; });
    // The flow says -1 for "nothing to do" as it does for a failure.
    if (outcome.attempts == 0 && before == config_info->mcu_fw_version) {
        return sayUpToDate(cli, before);
    }
    session.board().runFor(kMcuStart);
    const std::string after = link.version();
    printOutcome(cli, outcome, {{"before", before}, {"after", after}});
    if (!cli.options.json) cli.console.out << shown(before) << " -> " << shown(after) << '\n';
    return outcome.isDone && after == config_info->mcu_fw_version ? kOk : kFailed;
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
    CLI::App* command =
        mcu.add_subcommand("update", "Bring the MCU to the shipped version, as a boot does");
    command
        ->add_option("--installed", cli.options.mcuInstalled,
                     "Let the MCU have an image of this version before")
        ->check(versionText());
    command->footer(
        "Asks the MCU for its version, compares it with the shipped one, programs the shipped\n"
        "image in up to five attempts, records its version and opens the link again.\n"
        "Exit code 1 when the MCU does not run the shipped version in the end.\n"
        "Example: quilctl mcu update --installed V0.9.0");
    command->callback([&cli] { cli.action = [&cli] { return update(cli); }; });
}

}  // namespace

void addMcuCommands(CLI::App& app, Cli& cli) {
    CLI::App* mcu = app.add_subcommand("mcu", "The MCU's firmware");
    mcu->require_subcommand(1);
    mcu->fallthrough();
    mcu->footer("Example: quilctl mcu update --installed V0.9.0");
    addVersion(*mcu, cli);
    addUpdate(*mcu, cli);
    addMcuProgram(*mcu, cli);
    addMcuTask(*mcu, cli);
    addMcuModel(*mcu, cli);
}

}  // namespace quil::tools
