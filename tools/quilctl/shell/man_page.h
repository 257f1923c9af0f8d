// Manual pages, made from the command tree.
#pragma once

#include <string>

#include "tools/quilctl/shell/command_tree.h"

namespace quil::tools {

// "quilctl-mcu-update"
std::string manPageName(const CommandNode& command);

// The page's source in the man macros. The program's own page has the exit codes and the
// environment.
std::string manPage(const CommandNode& command, const std::string& version,
                    const std::string& date);

}  // namespace quil::tools
