// Time that no setting of the clock moves.
#pragma once

#include <stdint.h>
#include <time.h>

namespace quil::common {

inline int64_t monotonicMs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

}  // namespace quil::common
