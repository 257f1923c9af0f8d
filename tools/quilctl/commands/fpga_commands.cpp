#include "config/config_info.h"
#include "host/fpga_load.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/output/values.h"
#include "tools/quilctl/session/boot_stages.h"
#include "tools/quilctl/session/bring_up_faults.h"
#include "tools/quilctl/session/fpga_status.h"
#include "tools/quilctl/session/recording.h"

namespace quil::tools {
namespace {

void showStatus(const Cli& cli, Result& result) {
    BoardSession session(cli.options, cli.console);
    parseProduct();
    const FpgaStatus status = askStatus(session.board());
    addStatus(result, status);
    if (status.done != "high") {
        throw Failure(kFailed, "the FPGA's DONE is not high: no image runs",
                      "quilctl fpga load runs the load sequence, quilctl boot --update-fpga writes "
                      "the configured image first");
    }
}

struct LoadArguments {
    std::vector<std::string> faults;
};

void load(const Cli& cli, const LoadArguments& arguments, Result& result) {
    BoardSession session(cli.options, cli.console, false);
    const BringUpFaults faults(session.board(), arguments.faults, isUpdateAsked(session.board()),
                               cli.console.err);
    BootStages stages(session, cli.console, result);
    parseProduct();
    stages.end("configuration", true, config_info->product);
    const host::FpgaLoad loaded = host::loadFpga();
    if (loaded == host::FpgaLoad::kNoSequence) stages.end("FPGA", false, "no load sequence");
    result.json["loaded"] = loaded == host::FpgaLoad::kUp;
    addStatus(result, askStatus(session.board()));
    throwUnlessAllOk(stages.all());
    if (loaded != host::FpgaLoad::kUp) {
        throw Failure(kFailed, "the load sequence failed", "quilctl boot has its stages");
    }
}

void addLoad(CLI::App& fpga, Cli& cli) {
    const auto [command, arguments] = addVerb(fpga, cli,
                                              {"load", "Run the product's load sequence",
                                               "Exit code 1 when a stage failed.\n"
                                               "Example: quilctl --board my-board fpga load\n"
                                               "         quilctl fpga load --fault ddr,link"},
                                              load);
    addFaultOption(command, arguments.faults);
    addReportOption(command, cli);
}

}  // namespace

void addFpgaCommands(CLI::App& app, Cli& cli) {
    CLI::App& fpga = addGroup(app, {"fpga", "The FPGA: its image, its state, its bring-up",
                                    "Example: quilctl --board my-board fpga load"});
    addVerb(fpga, cli,
            {"status", "Ask for DONE, DDR, SGMII and the PHY's link",
             "Exit code 1 when the FPGA runs no image.\n"
             "Example: quilctl --board my-board fpga status"},
            showStatus);
    addLoad(fpga, cli);
    addFpgaImageCommands(fpga, cli);
}

}  // namespace quil::tools
