// The CRC-32 of IEEE 802.3, as in zip files.
#pragma once

#include <cstdint>
#include <span>

namespace quil::board {

uint32_t crc32(std::span<const uint8_t> bytes);

}  // namespace quil::board
