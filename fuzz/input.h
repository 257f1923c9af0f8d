// Splits a fuzz target's input into numbers and byte strings.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <span>

#include "testing/bytes.h"

namespace quil::fuzz {

// Reads an input from its front; 0 past its end.
class Input {
  public:
    explicit Input(std::span<const uint8_t> bytes) : mRest(bytes) {}

    bool empty() const { return mRest.empty(); }
    uint8_t byte() {
        const auto taken = take(1);
        return taken.empty() ? uint8_t{0} : taken[0];
    }
    // 16 bits, the low byte first.
    uint16_t word() {
        const uint8_t low = byte();
        return static_cast<uint16_t>(low | byte() << 8);
    }
    // Up to `most` bytes: fewer at the input's end.
    std::span<const uint8_t> take(size_t most) {
        const auto taken = mRest.first(std::min(most, mRest.size()));
        mRest = mRest.subspan(taken.size());
        return taken;
    }
    std::span<const uint8_t> rest() { return take(mRest.size()); }

  private:
    std::span<const uint8_t> mRest;
};

using tests::textOf;

}  // namespace quil::fuzz
