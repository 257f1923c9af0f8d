// A file that a command was told to read.
#pragma once

#include <string>

namespace quil::tools {

// Its whole content. Throws a Failure with the system's reason: kUsage when there is no such file,
// kBadData when it cannot be read.
std::string readInput(const std::string& file);

}  // namespace quil::tools
