// The client's side of a served board: its commands run where the board is.
#pragma once

#include "tools/quilctl/cli.h"

namespace quil::tools {

// Program::forward of the program with a board.
std::optional<int> forwardToServer(const Cli& cli, const CommandLine& line, const Streams& streams);

}  // namespace quil::tools
