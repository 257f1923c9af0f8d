// The line of a terminal that shows how far something is.
#pragma once

#include <stddef.h>

#include <string>

namespace quil::tools {

// "  3% [##....] 4096 of 8192 bytes, .."; on a narrow terminal with less of it. The last column
// stays free: in some terminals it would begin a new line.
std::string barOf(int percent, const std::string& numbers, size_t columns);

}  // namespace quil::tools
