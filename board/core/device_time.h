// The time that devices take while the program waits for them.
#pragma once

#include "board/core/trace.h"

namespace quil::board {

// Board time goes on by that much, and counts as the devices' (Board::deviceTime). Called with the
// board's lock held, which is given up meanwhile.
void spendDeviceTime(Nanos duration, const char* what);

}  // namespace quil::board
