// What a fuzz target says when something does not hold that has to.
#pragma once

#include <stdexcept>
#include <string>

namespace quil::fuzz {

// Nobody catches it under libFuzzer: it ends the process, and the input is kept.
class Finding : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

inline void check(bool holds, const char* what) {
    if (!holds) throw Finding(what);
}

}  // namespace quil::fuzz
