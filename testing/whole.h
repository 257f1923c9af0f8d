// Sweeps run in a sample with the other tests, and whole with QUIL_WHOLE=1 in the environment.
#pragma once

#include <stdlib.h>

#include "testing/slowed.h"

namespace quil::tests {

inline bool isWhole() { return getenv("QUIL_WHOLE") != nullptr; }

// Every so manieth case is run.
inline uint64_t strideOf(uint64_t sample) { return isWhole() ? 1 : sample * (kSlowed ? 8 : 1); }

}  // namespace quil::tests
