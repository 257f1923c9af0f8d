// Messages of the UART module and the packet builders: they go to standard output, not to the
// platform log, and have left the process when the call returns.
#pragma once

#include <stdio.h>

namespace quil::common {

inline constexpr int kErrorNoMemory = -4001;
inline constexpr int kErrorNullPointer = -4004;

template <typename... Args>
void printFlushed(const char* format, Args... args) {
    printf(format, args...);
    fflush(stdout);
}

// No line end: other components' tools match the text as it stands.
inline void printErrorCode(int code) { printFlushed("error code %d", code); }

}  // namespace quil::common
