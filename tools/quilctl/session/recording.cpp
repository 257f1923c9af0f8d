#include "tools/quilctl/session/recording.h"

#include <CLI/CLI.hpp>

#include "board/core/lock.h"
#include "board/core/whole_file.h"
#include "tools/quilctl/files/validators.h"
#include "tools/quilctl/output/values.h"
#include "tools/quilctl/page/report.h"

namespace quil::tools {

void record(board::Board& board, Recording& recording) {
    recording.isMade = true;
    recording.status = stateOf(board);
    recording.status["broken"] = Json::array();
    recording.events = board.trace().events();
    recording.screen =
        board::readWholeFile(board.hostPath("/dev/block/by-name/screen")).value_or("");
}

Json stateOf(board::Board& board) {
    const board::Guard guard(board::boardLock());
    board::McuChip& mcu = board.mcuChip();
    const board::Fpga& fpga = board.fpga();
    return {{"power", board.powerIsCut() ? "off" : "on"},
            {"board_seconds", secondsOf(board.now())},
            {"mcu", {{"state", nameOf(mcu.state())}, {"version", mcu.version()}}},
            {"fpga",
             {{"configured", fpga.isConfigured()},
              {"version", fpga.isConfigured() ? fpga.version() : ""}}},
            {"link", board.phy().isLinkUp() ? "up" : "down"},
            {"violations", board.violations()}};
}

void addReportOption(CLI::App& command, Cli& cli) {
    const auto take = [&cli](const std::string& file) {
        const auto recording = std::make_shared<Recording>(file);
        cli.options.recording = recording;
        cli.conclude = [&cli, recording](const Result& result,
                                         const std::vector<Failure>& failures) {
            if (!recording->isMade) return;
            writeReport(*recording, {cli.options.commandLine, result, failures});
        };
    };
    command
        .add_option_function<std::string>(
            "--report", take,
            "Write what happened as one page for a browser: parts, timeline, screen")
        ->type_name("FILE.html")
        ->check(outputFile());
}

}  // namespace quil::tools
