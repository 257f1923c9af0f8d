// Multi-byte fields of requests and frames, least significant byte first, placed byte by byte.
#pragma once

#include <stdint.h>

namespace quil::common {

inline void putLe16(uint8_t* at, uint16_t value) {
    at[0] = static_cast<uint8_t>(value);
    at[1] = static_cast<uint8_t>(value >> 8);
}

inline void putLe32(uint8_t* at, uint32_t value) {
    putLe16(at, static_cast<uint16_t>(value));
    putLe16(at + 2, static_cast<uint16_t>(value >> 16));
}

inline uint16_t getLe16(const uint8_t* at) { return static_cast<uint16_t>(at[0] | (at[1] << 8)); }

inline uint32_t getLe32(const uint8_t* at) {
    return getLe16(at) | (static_cast<uint32_t>(getLe16(at + 2)) << 16);
}

}  // namespace quil::common
