// Whether the board has power. It comes once, and it is cut at most once.
#pragma once

#include <atomic>
#include <functional>
#include <utility>
#include <vector>

#include "board/core/lock.h"

namespace quil::board {

class Power {
  public:
    bool isOn() const { return mState.load(std::memory_order_relaxed) == State::kOn; }
    bool isCut() const { return mState.load(std::memory_order_relaxed) == State::kCut; }
    void turnOn() { mState.store(State::kOn); }
    void turnOff() {
        State on = State::kOn;  // a cut stays one
        mState.compare_exchange_strong(on, State::kOff);
    }

    // Called once, when the power is cut, with the board's lock held; in the order of these calls.
    void onCut(std::function<void()> listener) { mListeners.push_back(std::move(listener)); }
    void cut() {
        Guard guard(boardLock());
        if (mState.exchange(State::kCut) == State::kCut) return;
        for (const auto& listener : mListeners) listener();
    }

  private:
    enum class State { kOff, kOn, kCut };
    std::atomic<State> mState{State::kOff};
    std::vector<std::function<void()>> mListeners;
};

}  // namespace quil::board
