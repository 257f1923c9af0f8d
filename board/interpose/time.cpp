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

// Six digits behind the point. Whole microseconds, as nearly all are, take no floating point.
std::string secondsText(Nanos duration) {
    constexpr int64_t kMicrosPerSecond = 1'000'000;
    const int64_t micros = duration.count() / 1000;
    if (duration.count() % 1000 == 0 && micros >= 0) {
        std::string text = std::to_string(kMicrosPerSecond + micros % kMicrosPerSecond) + " s";
        return text.replace(0, 1, std::to_string(micros / kMicrosPerSecond) + ".");
    }
    return std::to_string(static_cast<double>(duration.count()) / 1e9) + " s";
}

enum class SleepEnd { kElsewhere, kOver, kInterrupted };

// kElsewhere: the thread is outside board time and has to sleep in real time. kInterrupted: `left`
// of the time is left.
SleepEnd sleepOnBoard(Nanos duration, Nanos* left) {
    Machine* machine = machineForTurns();
    if (machine == nullptr) return SleepEnd::kElsewhere;
    Guard guard(boardLock());
    if (machine->dead()) return SleepEnd::kOver;
    const bool isRecorded = machine->trace.recording();
    machine->trace.add(EventKind::kSleep, "thread", isRecorded ? secondsText(duration) : "");
    const Nanos end = machine->scheduler.now() + duration;
    const bool isCutShort = machine->faults.take(Call::kSleep, "").has_value();
    if (isCutShort) machine->scheduler.sleepFor(duration / 2, "sleep");
    if (isCutShort || machine->interrupts("sleep", "thread", duration)) {
        *left = end - machine->scheduler.now();
        return SleepEnd::kInterrupted;
    }
    machine->scheduler.sleepUntil(end, "sleep");
    return SleepEnd::kOver;
}

int interrupted() {
    errno = EINTR;
    return -1;
}

bool isProcessorClock(clockid_t clock) {
    return clock == CLOCK_PROCESS_CPUTIME_ID || clock == CLOCK_THREAD_CPUTIME_ID || clock < 0;
}

bool isWallClock(clockid_t clock) {
    return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

}  // namespace

extern "C" {

QUIL_EXPORT int usleep(useconds_t duration) {
    Nanos left{0};
    const SleepEnd end = sleepOnBoard(Micros(duration), &left);
    if (end == SleepEnd::kElsewhere) return real().usleep(duration);
    return end == SleepEnd::kInterrupted ? interrupted() : 0;
}

QUIL_EXPORT unsigned sleep(unsigned duration) {
    Nanos left{0};
    const SleepEnd end = sleepOnBoard(std::chrono::seconds(duration), &left);
    if (end == SleepEnd::kElsewhere) return real().sleep(duration);
    return static_cast<unsigned>(std::chrono::ceil<std::chrono::seconds>(left).count());
}

QUIL_EXPORT int nanosleep(const timespec* duration, timespec* left) {
    Nanos rest{0};
    const SleepEnd end = sleepOnBoard(nanosOf(*duration), &rest);
    if (end == SleepEnd::kElsewhere) return real().nanosleep(duration, left);
    if (end == SleepEnd::kOver) return 0;
    if (left != nullptr) *left = timespecOf(rest.count());
    return interrupted();
}

QUIL_EXPORT int clock_nanosleep(clockid_t clock, int flags, const timespec* time, timespec* left) {
    Nanos duration = nanosOf(*time), rest{0};
    if ((flags & TIMER_ABSTIME) != 0) {
        timespec now{};
        clock_gettime(clock, &now);
        duration = std::max(Nanos(0), duration - nanosOf(now));
    }
    const SleepEnd end = sleepOnBoard(duration, &rest);
    if (end == SleepEnd::kElsewhere) return real().clock_nanosleep(clock, flags, time, left);
    if (end == SleepEnd::kOver) return 0;
    if (left != nullptr && (flags & TIMER_ABSTIME) == 0) *left = timespecOf(rest.count());
    return EINTR;
}

// Board time goes on only while all threads wait, so that a thread that polls would stop it:
// therefore each yield waits for the next whole millisecond.
QUIL_EXPORT int sched_yield() noexcept {
    Machine* machine = machineForTurns();
    if (machine == nullptr || machine->options.realtime) return real().sched_yield();
    Guard guard(boardLock());
    Scheduler& scheduler = machine->scheduler;
    constexpr Nanos kStep = std::chrono::milliseconds(1);
    if (machine->dead()) {
        scheduler.passWithoutPower(kStep);
        return 0;
    }
    scheduler.sleepUntil(scheduler.now() - scheduler.now() % kStep + kStep, "its next look");
    return 0;
}

// Takes no lock, gives no turn up and, until the C library's functions are looked up, calls none of
// them: the address sanitizer asks for the time while it holds its allocator's locks.
QUIL_EXPORT int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const Machine* machine = poweredMachine();
    if (machine != nullptr && Scheduler::attached() && !isProcessorClock(clock) &&
        !BoardLock::mine()) {
        if (__asan_init == nullptr) Scheduler::arrive();
        const Scheduler& scheduler = machine->scheduler;
        const Nanos now = isWallClock(clock) ? scheduler.wallNow() : scheduler.now();
        *time = timespecOf((now + std::chrono::seconds(kPowerOnEpoch)).count());
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
