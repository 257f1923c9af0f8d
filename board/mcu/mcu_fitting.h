// Another MCU for a board that is off.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

#include "board/mcu/mcu_parts.h"

namespace quil::board {

struct McuFitting {
    McuKind kind = McuKind::kGd32F303;
    std::string shipped = "V1.0.0";  // the version that the product file and its image have
    std::string flashed = {};        // what stands in the flash; "": the shipped one
    size_t imageSize = 8192;         // bytes, of both images
};

// The product file names the part and the shipped version from then on; the image that it names,
// and the flash, are written anew. Throws std::runtime_error when the directory is no board's.
void fitMcu(const std::filesystem::path& boardDirectory, const McuFitting&);

// Only the flash: an image of that version, as large as the shipped one.
void flashMcu(const std::filesystem::path& boardDirectory, const std::string& version);

}  // namespace quil::board
