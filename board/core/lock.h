// The board's own lock and wake-ups, directly on the kernel's futex. The thread sanitizer must not
// see them: locks of the board would order the program's threads and so hide the program's races.
#pragma once

#include <stdint.h>

#include <atomic>
#include <mutex>

namespace quil::board {

// One lock for the whole board. Recursive: the thread that holds it may lock it again.
class BoardLock {
  public:
    void lock();
    void unlock();
    // Returns false after `nanos` of real time without getting the lock.
    bool lockFor(int64_t nanos);
    // The kernel's number of the thread that has the lock; 0 while none has.
    int owner() const { return mOwner.load(std::memory_order_relaxed); }
    // For the report of a thread that never gave the lock back: goes on without it.
    static void lockForALastLook();
    // True while this thread holds the lock: its C library calls are then the board's own, and pass
    // through to the C library.
    static bool mine();
    // Unlocks all levels that this thread holds, so that other threads can go on while it waits.
    // Returns the number of levels, for takeAgain.
    int giveUp();
    void takeAgain(int times);

  private:
    void taken();

    std::atomic<int> mWord{0}, mOwner{0};
};
BoardLock& boardLock();
int kernelThread();  // the calling thread's number in the kernel
using Guard = std::lock_guard<BoardLock>;

// Each open() lets one wait() return, also when it comes first.
class Gate {
  public:
    void open();
    void wait();
    // Returns false after `nanos` of real time without an open(); negative: waits without a limit.
    bool waitFor(int64_t nanos);

  private:
    std::atomic<int> mWord{0};
    std::atomic<int> mWaiting{0};  // at 0, open() need not call the kernel
};

}  // namespace quil::board
