// Pauses that the board's parts need, as their data sheets and boot loaders ask for them.
#pragma once

#include <unistd.h>

namespace quil::common {

inline void pauseMs(unsigned milliseconds) { usleep(milliseconds * 1000); }

}  // namespace quil::common
