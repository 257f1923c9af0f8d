// Sleeping and telling the time.
#include <errno.h>
#include <time.h>
#include <unistd.h>

#include "board/interpose.h"
#include "board/machine.h"
#include "board/real_calls.h"

using namespace quil::board;

namespace {

constexpr int64_t kNanosPerSecond = 1'000'000'000;

Nanos nanosOf(const timespec& time) { return Nanos(time.tv_sec * kNanosPerSecond + time.tv_nsec); }

timespec timespecOf(Nanos time) {
    timespec result{};
    result.tv_sec = static_cast<time_t>(time.count() / kNanosPerSecond);
    result.tv_nsec = static_cast<long>(time.count() % kNanosPerSecond);
    return result;
}

std::string secondsText(Nanos duration) {
    return std::to_string(static_cast<double>(duration.count()) / 1e9) + " s";
}

// Returns false when the thread does not live in board time and has to sleep by itself.
bool sleepOnBoard(Nanos duration) {
    Machine* machine = machineForCall();
    if (machine == nullptr) return false;
    Guard guard(boardLock());
    if (!machine->scheduler.attached()) return false;
    machine->trace.add(EventKind::kSleep, "thread", secondsText(duration));
    machine->scheduler.sleepUntil(machine->scheduler.now() + duration, "sleep");
    return true;
}

bool isProcessorClock(clockid_t clock) {
    return clock == CLOCK_PROCESS_CPUTIME_ID || clock == CLOCK_THREAD_CPUTIME_ID || clock < 0;
}

}  // namespace

extern "C" {

QUIL_EXPORT int usleep(useconds_t duration) {
    return sleepOnBoard(Micros(duration)) ? 0 : real().usleep(duration);
}

QUIL_EXPORT unsigned sleep(unsigned duration) {
    return sleepOnBoard(std::chrono::seconds(duration)) ? 0 : real().sleep(duration);
}

QUIL_EXPORT int nanosleep(const timespec* duration, timespec* left) {
    return sleepOnBoard(nanosOf(*duration)) ? 0 : real().nanosleep(duration, left);
}

QUIL_EXPORT int clock_nanosleep(clockid_t clock, int flags, const timespec* time, timespec* left) {
    Nanos duration = nanosOf(*time);
    if ((flags & TIMER_ABSTIME) != 0) {
        timespec now{};
        clock_gettime(clock, &now);
        duration = std::max(Nanos(0), duration - nanosOf(now));
    }
    return sleepOnBoard(duration) ? 0 : real().clock_nanosleep(clock, flags, time, left);
}

QUIL_EXPORT int clock_gettime(clockid_t clock, timespec* time) noexcept {
    Machine* machine = isProcessorClock(clock) ? nullptr : machineForCall();
    if (machine == nullptr) return real().clock_gettime(clock, time);
    {
        Guard guard(boardLock());
        if (machine->scheduler.attached()) {
            *time = timespecOf(machine->scheduler.now());
            time->tv_sec += static_cast<time_t>(kPowerOnEpoch);
            return 0;
        }
    }
    return real().clock_gettime(clock, time);
}

}  // extern "C"
