// Multi-byte fields, most significant byte first, placed byte by byte.
#pragma once

#include <stdint.h>

namespace quil::common {

inline void putBe32(uint8_t* at, uint32_t value) {
    at[0] = static_cast<uint8_t>(value >> 24);
    at[1] = static_cast<uint8_t>(value >> 16);
    at[2] = static_cast<uint8_t>(value >> 8);
    at[3] = static_cast<uint8_t>(value);
}

inline uint32_t getBe32(const uint8_t* at) {
    return (static_cast<uint32_t>(at[0]) << 24) | (static_cast<uint32_t>(at[1]) << 16) |
           (static_cast<uint32_t>(at[2]) << 8) | at[3];
}

}  // namespace quil::common
