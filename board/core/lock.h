// The board's own lock and wake-ups, straight on the kernel's futex: they take no part in what a
// sanitizer knows of the program's locks, so that the board hides no race of the program under it.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

namespace quil::board {

// One lock for the whole board, as a kernel's big lock; a thread may take it again.
class BoardLock {
  public:
    void lock();
    void unlock();
    // True while this thread is at work inside the board: its C library calls are then the board's
    // own.
    static bool mine();
    // Gives the lock up however often this thread holds it, so that others get on while it waits.
    // Returns how often that was, for takeAgain.
    int giveUp();
    void takeAgain(int times);

  private:
    std::atomic<int> word_{0};
};
BoardLock& boardLock();
using Guard = std::lock_guard<BoardLock>;

// Lets its waiter through once for each opening.
class Gate {
  public:
    void open();
    void wait();
    // Returns false when `nanos` of real time went by first.
    bool waitFor(int64_t nanos);

  private:
    std::atomic<int> word_{0};
    std::atomic<int> waiting_{0};  // nobody waits: no call into the kernel
};

}  // namespace quil::board
