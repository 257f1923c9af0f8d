// How far a session is: monotone, and whole only at a success.
#pragma once

#include <functional>
#include <string>

#include "programmer/transport.h"

namespace quil::programmer {

struct Progress {
    const char* phase = "";    // "compare", "erase", "write", "verify"
    double done = 0;           // 0 to 1
    size_t bytes = 0, of = 0;  // of the phase
    double bytesPerSecond = 0;
};

struct Callbacks {
    std::function<void(const Progress&)> progress = nullptr;  // at least every 250 ms
    std::function<bool()> cancelled = nullptr;                // asked as often
    std::function<void(const std::string&)> say = nullptr;    // what a person should know
};

class ProgressMeter {
  public:
    explicit ProgressMeter(const Callbacks& callbacks) : mCallbacks(callbacks) {}

    // What the rest of the session will take, of which `share` is the phase that begins.
    void phase(const char* name, Nanos share, Nanos rest, size_t bytes, Nanos now) {
        mFloor = mReached;
        const double whole = std::chrono::duration<double>(rest).count();
        const double part = std::chrono::duration<double>(share).count();
        mCeiling = whole > 0 ? mFloor + (1 - mFloor) * std::min(part / whole, 1.0) : mFloor;
        mShare = share;
        mBegan = now;
        mNow = {name, mReached, 0, bytes, 0};
        tell();
    }
    void advance(size_t bytes, Nanos now) {
        mNow.bytes += bytes;
        const double seconds = std::chrono::duration<double>(now - mBegan).count();
        mNow.bytesPerSecond = seconds > 0 ? static_cast<double>(mNow.bytes) / seconds : 0;
        const double of =
            mNow.of > 0 ? static_cast<double>(mNow.bytes) / static_cast<double>(mNow.of) : 0;
        reach(std::min(of, 1.0));
    }
    // Time goes on, and nothing else to tell: an erase.
    void tick(Nanos now) {
        if (mNow.of == 0 && mShare > Nanos(0)) {
            const auto passed = static_cast<double>((now - mBegan).count());
            reach(std::min(passed / static_cast<double>(mShare.count()), 0.95));
        } else {
            tell();
        }
    }
    void finish() {
        mNow.done = 1;
        tell();
    }

  private:
    void reach(double ofPhase) {
        constexpr double kMost = 0.999;
        mReached = std::max(mReached, std::min(mFloor + (mCeiling - mFloor) * ofPhase, kMost));
        mNow.done = mReached;
        tell();
    }
    void tell() const {
        if (mCallbacks.progress) mCallbacks.progress(mNow);
    }

    const Callbacks& mCallbacks;
    Progress mNow;
    double mReached = 0, mFloor = 0, mCeiling = 0;
    Nanos mShare{0}, mBegan{0};
};

}  // namespace quil::programmer
