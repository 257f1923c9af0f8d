// The checksum of both boot-loader protocols.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace quil::isp {

// The XOR of `count` bytes, 0 for none.
inline uint8_t xorOf(const uint8_t* data, size_t count) {
    uint8_t sum = 0;
    for (size_t i = 0; i < count; ++i) sum ^= data[i];
    return sum;
}

}  // namespace quil::isp
