// What a session has done and met, in numbers.
#pragma once

#include <algorithm>
#include <array>

#include "programmer/outcome.h"
#include "programmer/transport.h"

namespace quil::programmer {

class Statistics {
  public:
    void count(Trouble trouble) { ++mTroubles.at(static_cast<size_t>(trouble)); }
    size_t times(Trouble trouble) const { return mTroubles.at(static_cast<size_t>(trouble)); }
    size_t troubles() const {
        size_t all = 0;
        for (const size_t times : mTroubles) all += times;
        return all;
    }

    // From the end of a request on the line to the beginning of its answer, the flash's work
    // included.
    void turnaround(Nanos time) {
        if (mTurnarounds.size() < kMostTurnarounds)
            mTurnarounds.push_back(std::max(time, Nanos(0)));
    }
    // The time that `percent` of all turn-arounds keep.
    Nanos turnaroundOf(int percent) const {
        if (mTurnarounds.empty()) return Nanos(0);
        std::vector<Nanos> sorted = mTurnarounds;
        std::sort(sorted.begin(), sorted.end());
        return sorted[(sorted.size() - 1) * static_cast<size_t>(percent) / 100];
    }

    size_t pagesErased = 0, pagesWritten = 0, pagesEqual = 0;
    size_t bytesWritten = 0, bytesRead = 0;  // of the flash
    Nanos writing{0}, checking{0}, took{0};  // checking: reading, or asking for CRCs

  private:
    static constexpr size_t kMostTurnarounds = 1 << 16;
    std::array<size_t, kTroubles.size()> mTroubles{};
    std::vector<Nanos> mTurnarounds;
};

}  // namespace quil::programmer
