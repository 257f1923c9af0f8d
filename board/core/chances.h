// What any real system does now and then, and a program has to live with: drawn from the board's
// seed, each at its own rate. All rates are 0 unless set, and nothing is drawn at seed 0.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <optional>

#include "board/core/random.h"
#include "board/core/trace.h"

namespace quil::board {

struct ChanceRates {               // in a million
    uint32_t spuriousWakeUps = 0;  // of the waits for a condition: they end without a signal
    uint32_t interruptions = 0;    // of the calls that may wait: they end with EINTR
    uint32_t shortTransfers = 0;   // of reads and writes: fewer bytes than there could be
    uint32_t clockSteps = 0;       // of the waits until a time of the real-time clock: it is set
    Nanos longestClockStep = std::chrono::seconds(10);  // forwards or backwards
};

class Chances {
  public:
    Chances(uint64_t seed, const ChanceRates& rates)
        : mRates(seed != 0 ? rates : ChanceRates{}), mRandom(seed, "chances") {}

    // From 1 to `count`.
    size_t transferred(size_t count) {
        if (count < 2 || !mRandom.hits(mRates.shortTransfers)) return count;
        return static_cast<size_t>(1 + mRandom.below(count - 1));
    }
    // After how much of a wait of that length the call is interrupted; nothing: it is not.
    std::optional<Nanos> interruption(Nanos wait) { return moment(mRates.interruptions, wait); }
    std::optional<Nanos> spuriousWakeUp(Nanos wait) { return moment(mRates.spuriousWakeUps, wait); }

    struct ClockStep {
        Nanos after, by;
    };
    std::optional<ClockStep> clockStep(Nanos wait) {
        const auto after = moment(mRates.clockSteps, wait);
        if (!after) return std::nullopt;
        const Nanos longest = mRates.longestClockStep;
        return ClockStep{*after, drawn(2 * longest) - longest};
    }

  private:
    Nanos drawn(Nanos most) {
        return Nanos(mRandom.below(static_cast<uint64_t>(std::max<int64_t>(most.count(), 0)) + 1));
    }
    std::optional<Nanos> moment(uint32_t rate, Nanos wait) {
        if (!mRandom.hits(rate)) return std::nullopt;
        return drawn(wait);
    }

    const ChanceRates mRates;
    Random mRandom;
};

}  // namespace quil::board
