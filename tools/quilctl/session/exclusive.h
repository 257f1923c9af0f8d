// A lock for threads of which some live in board time: a mutex there belongs to that time.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

namespace quil::tools {

// On the kernel's futex: std::atomic's own wait yields before it sleeps, and a yield is a
// millisecond of board time.
class Exclusive {
  public:
    void lock() {
        while (mTaken.exchange(1) != 0) futex(FUTEX_WAIT_PRIVATE);
    }
    void unlock() {
        mTaken.store(0);
        futex(FUTEX_WAKE_PRIVATE);
    }

  private:
    // Waits while it is taken, or wakes one that waits.
    void futex(int operation) {
        syscall(SYS_futex, reinterpret_cast<int*>(&mTaken), operation, 1, nullptr, nullptr, 0);
    }
    std::atomic<int> mTaken{0};
};

}  // namespace quil::tools
