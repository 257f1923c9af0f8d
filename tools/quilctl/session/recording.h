// What a command's board has gone through, for the report of --report.
#pragma once

#include <string>
#include <vector>

#include "board/board.h"
#include "tools/quilctl/cli.h"

namespace quil::tools {

struct Recording {
    explicit Recording(std::string reportFile) : file(std::move(reportFile)) {}

    const std::string file;  // the report
    bool isMade = false;     // false: no board was powered
    Json status = {};
    std::vector<board::Event> events = {};
    std::string screen = {};  // the partition of screen parameters
};

void record(board::Board& board, Recording& recording);
// As the command status answers.
Json stateOf(board::Board& board);

// Adds --report to a command.
void addReportOption(CLI::App& command, Cli& cli);

}  // namespace quil::tools
