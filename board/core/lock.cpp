#include "board/core/lock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <utility>

// The thread sanitizer does not see the board's lock, and would report each access that the lock
// protects: accesses under the lock are excluded.
extern "C" {
[[gnu::weak]] void AnnotateIgnoreReadsBegin(const char* file, int line);
[[gnu::weak]] void AnnotateIgnoreReadsEnd(const char* file, int line);
[[gnu::weak]] void AnnotateIgnoreWritesBegin(const char* file, int line);
[[gnu::weak]] void AnnotateIgnoreWritesEnd(const char* file, int line);
}

namespace quil::board {
namespace {

thread_local int t_depth = 0;

void futexWait(std::atomic<int>& word, int expected, const timespec* timeout = nullptr) {
    syscall(SYS_futex, reinterpret_cast<int*>(&word), FUTEX_WAIT_PRIVATE, expected, timeout,
            nullptr, 0);
}

void futexWakeOne(std::atomic<int>& word) {
    syscall(SYS_futex, reinterpret_cast<int*>(&word), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void ignoreBegin() {
    if (AnnotateIgnoreReadsBegin == nullptr) return;
    AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
}

void ignoreEnd() {
    if (AnnotateIgnoreReadsEnd == nullptr) return;
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
}

}  // namespace

void BoardLock::lock() {
    if (t_depth++ > 0) return;
    int free = 0;
    if (!mWord.compare_exchange_strong(free, 1, std::memory_order_acquire)) {
        while (mWord.exchange(2, std::memory_order_acquire) != 0) futexWait(mWord, 2);
    }
    ignoreBegin();
}

void BoardLock::unlock() {
    if (--t_depth > 0) return;
    ignoreEnd();
    if (mWord.exchange(0, std::memory_order_release) == 2) futexWakeOne(mWord);
}

int BoardLock::giveUp() {
    const int times = std::exchange(t_depth, 1);
    unlock();
    return times;
}

void BoardLock::takeAgain(int times) {
    lock();
    t_depth = times;
}

bool BoardLock::mine() { return t_depth > 0; }

BoardLock& boardLock() {
    static constinit BoardLock lock;
    return lock;
}

void Gate::open() {
    mWord.fetch_add(1);
    if (mWaiting.load() > 0) futexWakeOne(mWord);
}

void Gate::wait() {
    while (!waitFor(-1)) {
    }
}

bool Gate::waitFor(int64_t nanos) {
    timespec timeout{};
    timeout.tv_sec = static_cast<time_t>(nanos / 1'000'000'000);
    timeout.tv_nsec = static_cast<long>(nanos % 1'000'000'000);
    int opened = mWord.load(std::memory_order_acquire);
    if (opened == 0) {
        mWaiting.fetch_add(1);
        futexWait(mWord, 0, nanos < 0 ? nullptr : &timeout);
        mWaiting.fetch_sub(1);
        opened = mWord.load(std::memory_order_acquire);
    }
    while (opened > 0) {
        if (mWord.compare_exchange_weak(opened, opened - 1, std::memory_order_acquire)) return true;
    }
    return false;
}

}  // namespace quil::board
