// The board's random numbers: SplitMix64 (Steele, Lea and Flood, 2014). A seed gives the same
// numbers with every compiler and every word size; the standard library's distributions do not.
#pragma once

#include <stdint.h>

#include <string_view>

namespace quil::board {

class Random {
  public:
    explicit constexpr Random(uint64_t seed) : mState(seed) {}
    // Each use of a seed has numbers of its own, whatever the other uses draw.
    constexpr Random(uint64_t seed, std::string_view use) : mState(seed) {
        for (const char c : use) mState = (mState ^ static_cast<uint8_t>(c)) * 0x100000001B3;
    }

    constexpr uint64_t next() {
        mState += 0x9E3779B97F4A7C15;
        uint64_t mixed = mState;
        mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
        mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
        return mixed ^ (mixed >> 31);
    }
    // From 0 to `end` - 1; `end` is at least 1.
    constexpr uint64_t below(uint64_t end) { return next() % end; }
    // True so many times in a million. At 0 no number is used up.
    constexpr bool hits(uint32_t inAMillion) {
        return inAMillion != 0 && below(1'000'000) < inAMillion;
    }

  private:
    uint64_t mState;
};

}  // namespace quil::board
