#include "board/core/bytes.h"

#include <zlib.h>

namespace quil::board {

uint32_t crc32Of(std::span<const uint8_t> bytes) {
    return static_cast<uint32_t>(crc32_z(0, bytes.data(), bytes.size()));
}

}  // namespace quil::board
