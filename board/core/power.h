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
    bool isOn() const { return state_.load(std::memory_order_relaxed) == State::kOn; }
    bool isCut() const { return state_.load(std::memory_order_relaxed) == State::kCut; }
    void turnOn() { state_.store(State::kOn); }
    void turnOff() {
        State on = State::kOn;  // a cut stays one
        state_.compare_exchange_strong(on, State::kOff);
    }

    // Called once, when the power is cut, with the board's lock held; in the order of these calls.
    void onCut(std::function<void()> listener) { listeners_.push_back(std::move(listener)); }
    void cut() {
        Guard guard(boardLock());
        if (state_.exchange(State::kCut) == State::kCut) return;
        for (const auto& listener : listeners_) listener();
    }

  private:
    enum class State { kOff, kOn, kCut };
    std::atomic<State> state_{State::kOff};
    std::vector<std::function<void()>> listeners_;
};

}  // namespace quil::board
