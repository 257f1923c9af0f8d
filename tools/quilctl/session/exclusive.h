// A lock for threads of which some live in board time: a mutex there belongs to that time.
#pragma once

#include <atomic>

namespace quil::tools {

class Exclusive {
  public:
    void lock() {
        while (mTaken.exchange(true)) mTaken.wait(true);
    }
    void unlock() {
        mTaken.store(false);
        mTaken.notify_one();
    }

  private:
    std::atomic<bool> mTaken{false};
};

}  // namespace quil::tools
