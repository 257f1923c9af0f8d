#include "board/core/lock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <utility>

#include "board/core/real_calls.h"

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

int kernelThread() {
    static thread_local int number = static_cast<int>(syscall(SYS_gettid));
    return number;
}

void BoardLock::taken() {
    mOwner.store(kernelThread(), std::memory_order_relaxed);
    ignoreBegin();
}

void BoardLock::lock() {
    if (t_depth++ > 0) return;
    int free = 0;
    if (!mWord.compare_exchange_strong(free, 1, std::memory_order_acquire)) {
        while (mWord.exchange(2, std::memory_order_acquire) != 0) futexWait(mWord, 2);
    }
    taken();
}

bool BoardLock::lockFor(int64_t nanos) {
    if (t_depth > 0) {
        ++t_depth;
        return true;
    }
    const int64_t end = realNanos() + nanos;
    while (mWord.exchange(2, std::memory_order_acquire) != 0) {
        const int64_t left = end - realNanos();
        if (left <= 0) return false;
        const timespec timeout = timespecOf(left);
        futexWait(mWord, 2, &timeout);
    }
    ++t_depth;
    taken();
    return true;
}

void BoardLock::unlock() {
    if (--t_depth > 0) return;
    ignoreEnd();
    mOwner.store(0, std::memory_order_relaxed);
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

void BoardLock::lockForALastLook() { ++t_depth; }

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
    const timespec timeout = timespecOf(nanos);
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
