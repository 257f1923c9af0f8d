// Noise on a serial line: each byte may come with one bit flipped, not at all, or twice. The seed
// decides, so that a run repeats.
#pragma once

#include <stdint.h>

#include <vector>

#include "board/core/random.h"

namespace quil::board {

struct NoiseRates {  // of 1,000,000 bytes
    uint32_t flipped = 0, dropped = 0, doubled = 0;
};

class LineNoise {
  public:
    LineNoise(uint64_t seed, const NoiseRates& rates) : mRates(rates), mRandom(seed) {}

    std::vector<uint8_t> arriving(uint8_t byte) {
        constexpr uint32_t kMillion = 1'000'000;
        uint64_t draw = mRandom.below(kMillion);
        if (draw < mRates.flipped) return {static_cast<uint8_t>(byte ^ 1U << mRandom.below(8))};
        draw -= mRates.flipped;
        if (draw < mRates.dropped) return {};
        draw -= mRates.dropped;
        if (draw < mRates.doubled) return {byte, byte};
        return {byte};
    }

  private:
    NoiseRates mRates;
    Random mRandom;
};

}  // namespace quil::board
