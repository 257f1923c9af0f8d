// Sleeps and clocks.
#include <errno.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "board/core/real_calls.h"
#include "board/interpose/interpose.h"
#include "board/machine.h"

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

// Returns false if the thread is outside board time and has to sleep in real time.
bool sleepOnBoard(Nanos duration) {
    Machine* machine = machineForTurns();
    if (machine == nullptr) return false;
    Guard guard(boardLock());
    if (machine->dead()) return true;
    machine->trace.add(EventKind::kSleep, "thread", secondsText(duration));
    machine->scheduler.sleepFor(duration, "sleep");
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

// Board time goes on only while all threads wait, so that a thread that polls would stop it:
// therefore each yield waits for the next whole millisecond.
QUIL_EXPORT int sched_yield() noexcept {
    Machine* machine = machineForTurns();
    if (machine == nullptr) return real().sched_yield();
    Guard guard(boardLock());
    Scheduler& scheduler = machine->scheduler;
    constexpr Nanos kStep = std::chrono::milliseconds(1);
    scheduler.sleepUntil(scheduler.now() - scheduler.now() % kStep + kStep, "its next look");
    return 0;
}

// Takes no lock and, until the C library's functions are looked up, calls none of them: the address
// sanitizer asks for the time while it holds its allocator's locks.
QUIL_EXPORT int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const Machine* machine = poweredMachine();
    if (machine != nullptr && Scheduler::attached() && !isProcessorClock(clock) &&
        !BoardLock::mine()) {
        if (__asan_init == nullptr) Scheduler::arrive();
        *time = timespecOf(machine->scheduler.now());
        time->tv_sec += static_cast<time_t>(kPowerOnEpoch);
        return 0;
    }
    return resolved() ? real().clock_gettime(clock, time)
                      : static_cast<int>(syscall(SYS_clock_gettime, clock, time));
}

QUIL_EXPORT int gettimeofday(timeval* time, void* zone) noexcept {
    const Machine* machine = poweredMachine();
    if (machine == nullptr || !Scheduler::attached() || BoardLock::mine() || !resolved()) {
        return real().gettimeofday(time, zone);
    }
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    time->tv_sec = now.tv_sec;
    time->tv_usec = now.tv_nsec / 1000;
    return 0;
}

QUIL_EXPORT time_t time(time_t* result) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (result != nullptr) *result = now.tv_sec;
    return now.tv_sec;
}

}  // extern "C"
