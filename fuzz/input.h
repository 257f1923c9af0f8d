// What a fuzz target takes its input apart with.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace quil::fuzz {

// Reads an input from its front. What is not there reads as 0.
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

inline std::string textOf(std::span<const uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace quil::fuzz
