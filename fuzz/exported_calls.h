// One call of each exported function.
#pragma once

#include <span>

#include "fuzz/drawn_arguments.h"

namespace quil::fuzz {

struct ExportedCall {
    const char* name;
    int64_t (*call)(Arguments&);  // 0 for a function without a result
    int64_t least, most;          // of what it may return
    bool isLong = false;          // thousands of calls of the board
};
std::span<const ExportedCall> exportedCalls();

}  // namespace quil::fuzz
