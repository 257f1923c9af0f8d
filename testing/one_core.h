// Keeps a process on one core. The threads of a board take turns, and a turn that goes to another
// core costs several times as much.
#pragma once

#include <sched.h>
#include <stddef.h>
#include <stdint.h>

namespace quil::tests {

// The index-th of those that the process may use, counted round.
inline void stayOnCore(uint64_t index) {
    cpu_set_t usable, only;
    if (sched_getaffinity(0, sizeof(usable), &usable) != 0) return;
    index %= static_cast<uint64_t>(CPU_COUNT(&usable));
    size_t core = 0;
    while (!CPU_ISSET(core, &usable) || index-- > 0) ++core;
    CPU_ZERO(&only);
    CPU_SET(core, &only);
    sched_setaffinity(0, sizeof(only), &only);
}

}  // namespace quil::tests
