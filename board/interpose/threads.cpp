// Threads, mutexes and condition variables. A thread in board time gives its turn up where it would
// block.
#include <errno.h>
#include <pthread.h>

#include "board/core/real_calls.h"
#include "board/interpose/interpose.h"
#include "board/machine.h"

using namespace quil::board;

namespace {

struct Turn {
    explicit Turn(BoardThread* thread) {
        // With a sanitizer the parent waits for the child's start: the child runs before its turn.
        Scheduler::begin(thread, __tsan_init == nullptr && __asan_init == nullptr);
    }
    ~Turn() { Scheduler::end(); }
};

void* runThread(void* argument) {
    auto* thread = static_cast<BoardThread*>(argument);
    Turn turn(thread);
    return thread->routine(thread->argument);
}

int lockInTurns(Machine& machine, pthread_mutex_t* mutex) {
    int result = real().pthread_mutex_trylock(mutex);
    if (result != EBUSY) return result;
    Guard guard(boardLock());
    while ((result = real().pthread_mutex_trylock(mutex)) == EBUSY) {
        if (poweredMachine() != &machine) break;
        machine.scheduler.park("a mutex", mutex);
    }
    return result == EBUSY ? real().pthread_mutex_lock(mutex) : result;
}

Nanos boardDeadline(const timespec& deadline) {
    return std::chrono::seconds(static_cast<int64_t>(deadline.tv_sec) - kPowerOnEpoch) +
           Nanos(deadline.tv_nsec);
}

// True if woken, by a signal or by chance; false at the deadline.
bool waitForSignal(Machine& machine, pthread_cond_t* condition, std::optional<Nanos> deadline,
                   clockid_t clock) {
    constexpr char kWhat[] = "a condition";
    if (machine.faults.take(Call::kWait, "")) return true;
    Scheduler& scheduler = machine.scheduler;
    const bool onWallClock = deadline && clock == CLOCK_REALTIME;
    const Nanos now = onWallClock ? scheduler.wallNow() : scheduler.now();
    const Nanos wait = deadline ? *deadline - now : std::chrono::seconds(1);
    if (const auto after = machine.chances.spuriousWakeUp(wait)) {
        machine.trace.add(EventKind::kFault, "thread", "a wait that ends without a signal");
        scheduler.park(kWhat, condition, scheduler.now() + *after);
        return true;
    }
    if (!onWallClock) return scheduler.park(kWhat, condition, deadline);
    if (const auto step = machine.chances.clockStep(wait)) {
        scheduler.at(scheduler.now() + step->after, [&machine, step] {
            machine.trace.add(EventKind::kFault, "real-time clock",
                              "set by " + std::to_string(step->by.count()) + " ns");
            machine.scheduler.stepWallClock(step->by);
        });
    }
    return scheduler.parkUntilWall(kWhat, condition, *deadline);
}

int waitInTurns(Machine& machine, pthread_cond_t* condition, pthread_mutex_t* mutex,
                const timespec* deadline, clockid_t clock) {
    if (deadline != nullptr && (deadline->tv_nsec < 0 || deadline->tv_nsec >= 1'000'000'000)) {
        return EINVAL;
    }
    bool woken = false;
    {
        Guard guard(boardLock());
        real().pthread_mutex_unlock(mutex);
        machine.scheduler.wakeOne(mutex);
        std::optional<Nanos> until;
        if (deadline != nullptr) until = boardDeadline(*deadline);
        woken = waitForSignal(machine, condition, until, clock);
    }
    const int result = lockInTurns(machine, mutex);
    if (result != 0) return result;
    return woken || deadline == nullptr || poweredMachine() != &machine ? 0 : ETIMEDOUT;
}

}  // namespace

extern "C" {

QUIL_EXPORT int pthread_create(pthread_t* handle, const pthread_attr_t* attributes,
                               void* (*routine)(void*), void* argument) noexcept {
    // The thread sanitizer's own background thread, the only one without an argument, takes no
    // turns.
    const bool sanitizersOwn = __tsan_init != nullptr && argument == nullptr;
    Machine* machine = sanitizersOwn ? nullptr : machineForTurns();
    if (machine == nullptr) return real().pthread_create(handle, attributes, routine, argument);
    Guard guard(boardLock());
    const auto child = machine->scheduler.expectChild();
    child->routine = routine;
    child->argument = argument;
    const int result = real().pthread_create(handle, attributes, runThread, child.get());
    if (result == 0) {
        machine->scheduler.started(child, *handle);
    } else {
        machine->scheduler.childFailed(child);
    }
    return result;
}

QUIL_EXPORT int pthread_join(pthread_t handle, void** result) {
    if (Machine* machine = machineForTurns()) {
        Guard guard(boardLock());
        const auto child = machine->scheduler.find(handle);
        while (child && !child->finished && poweredMachine() == machine) {
            machine->scheduler.park("the end of a thread", child.get());
        }
        machine->scheduler.forget(handle);
    }
    return real().pthread_join(handle, result);
}

QUIL_EXPORT int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    Machine* machine = machineForTurns();
    return machine ? lockInTurns(*machine, mutex) : real().pthread_mutex_lock(mutex);
}

QUIL_EXPORT int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    const int result = real().pthread_mutex_unlock(mutex);
    Machine* machine = machineForCall();
    if (machine == nullptr) return result;
    Guard guard(boardLock());
    if (machine->scheduler.anyoneParked()) machine->scheduler.wakeOne(mutex);
    return result;
}

QUIL_EXPORT int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    Machine* machine = machineForTurns();
    if (machine == nullptr) return real().pthread_cond_wait(condition, mutex);
    return waitInTurns(*machine, condition, mutex, nullptr, CLOCK_REALTIME);
}

QUIL_EXPORT int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                       const timespec* deadline) {
    Machine* machine = machineForTurns();
    if (machine == nullptr) return real().pthread_cond_timedwait(condition, mutex, deadline);
    return waitInTurns(*machine, condition, mutex, deadline, CLOCK_REALTIME);
}

QUIL_EXPORT int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                       clockid_t clock, const timespec* deadline) {
    Machine* machine = machineForTurns();
    if (machine == nullptr) return real().pthread_cond_clockwait(condition, mutex, clock, deadline);
    return waitInTurns(*machine, condition, mutex, deadline, clock);
}

QUIL_EXPORT int pthread_cond_signal(pthread_cond_t* condition) noexcept {
    if (Machine* machine = machineForCall()) {
        Guard guard(boardLock());
        if (machine->scheduler.wakeOne(condition)) return 0;
    }
    return real().pthread_cond_signal(condition);
}

QUIL_EXPORT int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
    if (Machine* machine = machineForCall()) {
        Guard guard(boardLock());
        machine->scheduler.wakeAll(condition);
    }
    return real().pthread_cond_broadcast(condition);
}

}  // extern "C"
