// Pauses that the board's parts need, as their data sheets and boot loaders ask for them. A signal
// shortens none: what works for a part that is given too little time is luck.
#pragma once

#include <errno.h>
#include <time.h>

namespace quil::common {

inline void pauseUs(unsigned microseconds) {
    timespec left = {static_cast<time_t>(microseconds / 1'000'000),
                     static_cast<long>(microseconds % 1'000'000) * 1'000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}
inline void pauseMs(unsigned milliseconds) { pauseUs(milliseconds * 1'000); }
inline void pauseS(unsigned seconds) { pauseUs(seconds * 1'000'000); }

}  // namespace quil::common
