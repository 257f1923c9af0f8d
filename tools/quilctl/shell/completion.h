// Completion of the command line in the three shells, made from the command tree.
#pragma once

#include <string>

#include "tools/quilctl/shell/command_tree.h"

namespace quil::tools {

std::string bashCompletion(const CommandNode& program);
std::string zshCompletion(const CommandNode& program);
std::string fishCompletion(const CommandNode& program);

}  // namespace quil::tools
