// Which of several runnable threads goes next.
//
// At seed 0 it is the one that has waited longest, and a running thread goes on until it waits.
// With another seed, the next thread is drawn at every call that a thread makes into the board:
// - Random walk: any runnable thread, each as probable as the others.
// - PCT (Burckhardt, Kothari, Musuvathi and Nagarakatte, "A Randomized Scheduler with Probabilistic
//   Guarantees of Finding Bugs", 2010): each thread has a random priority and the highest one runs;
//   at depth - 1 random steps the running thread becomes the lowest. A bug that needs `depth`
//   switches at the right places is found with a probability of at least
//   1 / (threads x steps^(depth - 1)).
#pragma once

#include <stdint.h>

#include <algorithm>
#include <vector>

#include "board/core/random.h"

namespace quil::board {

struct Pct {
    unsigned depth = 0;      // 0: random walk instead
    uint64_t steps = 1'000;  // how many steps a run is expected to have
};

class Schedule {
  public:
    Schedule() = default;
    // After `drawnSteps` threads take turns as at seed 0: with fewer and fewer of them, the steps
    // are found that a failure needs.
    Schedule(uint64_t seed, const Pct& pct, uint64_t drawnSteps = UINT64_MAX)
        : mDrawn(seed != 0), mPct(pct), mRandom(seed, "turns"), mDrawnSteps(drawnSteps) {
        for (unsigned i = 1; mDrawn && i < pct.depth; ++i) {
            mChanges.push_back(1 + mRandom.below(std::max<uint64_t>(pct.steps, 1)));
        }
    }

    bool isDrawn() const { return mDrawn && mSteps < mDrawnSteps; }
    uint64_t priorityOfANewThread() {
        constexpr uint64_t kAboveTheLowest = uint64_t{1} << 32;
        return mDrawn && mPct.depth > 0 ? kAboveTheLowest + mRandom.next() / 2 : 0;
    }
    // The running thread makes a step; its priority may change.
    void step(uint64_t* priority) {
        ++mSteps;
        const auto changes = std::count(mChanges.begin(), mChanges.end(), mSteps);
        if (changes > 0) *priority = --mLowest;
    }
    // The index of the next one among `threads`, which are not empty and of BoardThread*.
    template <typename Threads>
    size_t choose(const Threads& threads) {
        if (!isDrawn()) return 0;
        if (mPct.depth == 0) return static_cast<size_t>(mRandom.below(threads.size()));
        const auto lower = [](const auto* a, const auto* b) { return a->priority < b->priority; };
        const auto highest = std::max_element(threads.begin(), threads.end(), lower);
        return static_cast<size_t>(highest - threads.begin());
    }

  private:
    bool mDrawn = false;
    Pct mPct;
    Random mRandom{0};
    std::vector<uint64_t> mChanges;  // the steps at which the running thread becomes the lowest
    uint64_t mDrawnSteps = UINT64_MAX, mSteps = 0, mLowest = uint64_t{1} << 32;
};

}  // namespace quil::board
