#include "board/core/crc32.h"

#include <array>
#include <cstddef>

namespace quil::board {
namespace {

// Eight bytes at a time: a board checks all its images at every power-on.
constexpr size_t kSlices = 8;
using SliceTables = std::array<std::array<uint32_t, 256>, kSlices>;

constexpr SliceTables makeTables() {
    SliceTables tables{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) value = value >> 1 ^ (value & 1 ? 0xEDB88320 : 0);
        tables[0][i] = value;
    }
    for (size_t slice = 1; slice < kSlices; ++slice) {
        for (size_t i = 0; i < 256; ++i) {
            const uint32_t before = tables[slice - 1][i];
            tables[slice][i] = before >> 8 ^ tables[0][before & 0xFF];
        }
    }
    return tables;
}

constexpr SliceTables kTables = makeTables();

}  // namespace

uint32_t crc32(std::span<const uint8_t> bytes) {
    uint32_t crc = 0xFFFFFFFF;
    while (bytes.size() >= kSlices) {
        uint32_t next = 0;
        for (size_t i = 0; i < kSlices; ++i) {
            const uint32_t mixed = i < 4 ? crc >> (8 * i) & 0xFF : 0;
            next ^= kTables[kSlices - 1 - i][mixed ^ bytes[i]];
        }
        crc = next;
        bytes = bytes.subspan(kSlices);
    }
    for (const uint8_t byte : bytes) crc = crc >> 8 ^ kTables[0][(crc ^ byte) & 0xFF];
    return ~crc;
}

}  // namespace quil::board
