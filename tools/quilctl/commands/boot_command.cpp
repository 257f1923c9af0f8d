#include "config/config_info.h"
#include "fpga/load_process.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/fpga_file.h"
#include "tools/quilctl/files/input_file.h"
#include "tools/quilctl/session/boot_stages.h"
#include "tools/quilctl/session/bring_up_faults.h"
#include "tools/quilctl/session/fpga_status.h"
#include "tools/quilctl/session/recording.h"
#include "tools/quilctl/session/stage_advice.h"

namespace quil::tools {
namespace {

// The update flow answers "nothing to do" as it does a failure, with an error message of its own.
constexpr char kUpToDate[] = "mcuFwUpdate: do not need upgrade FW";

void endMcuStage(BoardSession& session, BootStages& stages) {
    const bool isProgrammed = session.host().mcuFirmware() == host::McuFirmware::kReprogrammed;
    const bool isUpToDate = !isProgrammed && stages.error() == kUpToDate;
    stages.end("MCU firmware", isProgrammed || isUpToDate,
               isProgrammed ? "programmed"
               : isUpToDate ? "up to date"
                            : "");
}

void endStage(BoardSession& session, BootStages& stages, host::BootStep step) {
    switch (step) {
        case host::BootStep::kConfiguration:
            return stages.end("configuration", true, config_info->product);
        case host::BootStep::kClients:
            return stages.end("clients are let in", true);
        case host::BootStep::kMcu:
            return endMcuStage(session, stages);
        case host::BootStep::kFpga:
            if (session.host().fpga() != host::FpgaLoad::kNoSequence) return;
            return stages.end("FPGA", false, "there is no load sequence for this product");
        case host::BootStep::kUp:
            return stages.end("ready for requests", true);
    }
}

// An update erases the flash, whatever the image is.
void requireGoodImage(board::Board& board) {
    parseProduct();
    for (const FpgaPlace& place : fpgaPlaces()) {
        if (place.room == 0 || config_info->product != board::nameOf(place.product)) continue;
        const std::string image = board.hostPath(config_info->fpga_fw_path).string();
        const std::string obstacle = obstacleFor(checkFpgaFile(readInput(image)), place);
        if (obstacle.empty()) return;
        const char* const kRemedy = "; nothing was erased (--as-is updates all the same)";
        throw Failure(kBadData, std::string(image).append(": ").append(obstacle).append(kRemedy));
    }
}

struct BootArguments {
    bool updatesFpga = false;
    bool asIs = false;
    std::vector<std::string> faults;
};

void boot(const Cli& cli, const BootArguments& arguments, Result& result) {
    BoardSession session(cli.options, cli.console, false);
    const bool isUpdate = arguments.updatesFpga || isUpdateAsked(session.board());
    const BringUpFaults faults(session.board(), arguments.faults, isUpdate, cli.console.err);
    if (arguments.updatesFpga && !arguments.asIs) requireGoodImage(session.board());
    if (arguments.updatesFpga) session.board().properties().set(fpga::kUpdateProperty, "1");
    BootStages stages(session, cli.console, result);
    const host::StartUpResult started = session.host().start(
        {.updateMcu = true, .loadFpga = true, .onStep = [&](host::BootStep step) {
             endStage(session, stages, step);
         }});
    if (!started.ok()) {
        stages.end("start-up", false, started.text);
        throw Failure(kNoBoard, "the service did not come up: " + started.text, kServiceRemedy);
    }
    throwUnlessAllOk(stages.all());
}

}  // namespace

void addBootCommand(CLI::App& app, Cli& cli) {
    const auto [command, arguments] =
        addVerb(app, cli,
                {"boot", "Start up as the board does: configuration, MCU, FPGA, service",
                 "Exit code 1 when a stage failed, 4 when the service did not come up.\n"
                 "Example: quilctl --product Kestrel boot\n"
                 "         quilctl boot --update-fpga --fault erase"},
                boot);
    command.add_flag("--update-fpga", arguments.updatesFpga, "Ask for the FPGA's new image first");
    command.add_flag("--as-is", arguments.asIs, "Ask for it even if the image cannot be used");
    addFaultOption(command, arguments.faults);
    addReportOption(command, cli);
}

}  // namespace quil::tools
