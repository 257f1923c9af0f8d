// How a fuzz target reports that a condition does not hold.
#pragma once

#include <stdexcept>
#include <string>

namespace quil::fuzz {

// Not caught under libFuzzer: it ends the process, and libFuzzer keeps the input.
class Finding : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

inline void check(bool holds, const char* what) {
    if (!holds) throw Finding(what);
}

}  // namespace quil::fuzz
