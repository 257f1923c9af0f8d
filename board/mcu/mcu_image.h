// The firmware images of the simulated microcontroller.
//
//   0x000  4  initial stack pointer: a word address inside the RAM, or its end
//   0x004  4  reset vector: odd (Thumb), inside the image
//   0x200  8  "MCUIMAGE"
//   0x208  4  length of the whole image, its CRC included
//   0x20C  4  0
//   0x210 16  version text, NUL padded (at most 15 characters)
//   0x220  .  code
//   length - 4: CRC-32 (IEEE 802.3, as in zip files) of all before it
//
// All fields are little-endian. Bytes behind the image in the flash are ignored.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <span>
#include <string>
#include <string_view>

#include "board/mcu/mcu_parts.h"

namespace quil::board {

inline constexpr size_t kMcuImageVersionAt = 0x210, kMcuImageVersionMax = 15;
inline constexpr size_t kMcuImageLeast = 0x228;  // bytes

// A valid image of exactly `size` bytes. Its code depends on the version, so that the images of two
// versions differ throughout. Throws std::invalid_argument when the size or the version does not
// fit.
std::string makeMcuImage(McuKind, std::string_view version, size_t size);

struct McuImageCheck {
    std::string problem;  // why a start from this flash fails; empty: it succeeds
    std::string version;  // when there is no problem
};
// What the head of the image at the start of a flash says; 0: there is no head.
uint32_t mcuImageLength(std::span<const uint8_t> flash);
// Checks the image at the start of a flash as the part does at its start.
McuImageCheck checkMcuImage(const McuPart&, std::span<const uint8_t> flash);

}  // namespace quil::board
