// What both protocols and the session ask of a run of bytes.
#pragma once

#include <stdint.h>

#include <algorithm>
#include <span>

namespace quil::programmer {

inline uint8_t xorOf(std::span<const uint8_t> bytes) {
    uint8_t sum = 0;
    for (const uint8_t byte : bytes) sum ^= byte;
    return sum;
}

// Erased flash.
inline bool isBlank(std::span<const uint8_t> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0xFF; });
}

}  // namespace quil::programmer
