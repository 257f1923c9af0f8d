// Shell commands: how kernel modules, network addresses, flash tools and GPIO lines are driven.
#pragma once

#include <stdlib.h>

namespace quil::common {

// Runs a fixed command string and waits for it. Returns the wait status (the exit status shifted
// left by 8), or -1 when no shell could be started.
inline int runShell(const char* command) {
    return system(command);  // NOLINT: the board's lines and tools are driven through the shell
}

}  // namespace quil::common
