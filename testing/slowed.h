// Where tests run many times slower than usual, the longest ones run fewer of their cases.
#pragma once

#include "testing/build.h"

namespace quil::tests {

inline constexpr bool kEmulated = sizeof(QUIL_EMULATOR) > 1;
inline constexpr bool kSlowed = QUIL_SANITIZED || kEmulated;

}  // namespace quil::tests
