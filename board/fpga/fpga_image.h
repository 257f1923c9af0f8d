// The FPGA's configuration image as it stands in a file and in the serial flash.
//
// All fields big-endian: a sync word (4 bytes), the size of the whole image (4), the CRC-32 of
// everything behind this field (4), the version's text (20, filled up with zeros), the body. The
// CRC is that of IEEE 802.3.
#pragma once

#include <cstddef>
#include <cstdint>
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
    uint32_t size = 0;  // as the header says; 0 when there is none
};
// What an FPGA finds that reads its configuration from these bytes; more of them may follow the
// image.
FpgaImageCheck checkFpgaImage(std::span<const uint8_t> bytes);

}  // namespace quil::board
