// How each interposed call can fail: the columns of the matrix.
#pragma once

#include <span>
#include <string>

#include "board/core/faults.h"

namespace quil::faults {

struct Way {
    const char* name;  // "EIO", "short 1", "exit 127"
    board::Fault fault;
};

std::span<const Way> waysOf(board::Call);

// The call with this number among those of its kind and path in a run.
struct Site {
    board::Call call = board::Call::kOpen;
    std::string path;
    int nth = 0;
};

// What makes just that call fail.
board::Fault faultAt(const Site&, const Way&);

}  // namespace quil::faults
