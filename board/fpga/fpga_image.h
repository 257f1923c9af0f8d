// The FPGA's configuration image, in a file and in the serial flash.
//
// All fields are big-endian: a sync word (4 bytes), the size of the whole image (4), the CRC-32
// (IEEE 802.3) of everything behind this field (4), the version's text (20, NUL padded), the body.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <span>
#include <string>
#include <string_view>

namespace quil::board {

// Makes a valid image of exactly `size` bytes. Throws std::runtime_error when the version does not
// fit or the size leaves no room for a body.
std::string makeFpgaImage(std::string_view version, size_t size);

struct FpgaImageCheck {
    std::string problem;  // empty: the image is good
    std::string version;
    uint32_t size = 0;  // from the header; 0 without a header
};
// Checks the image at the start of these bytes as an FPGA does; other bytes may follow the image.
FpgaImageCheck checkFpgaImage(std::span<const uint8_t> bytes);

}  // namespace quil::board
