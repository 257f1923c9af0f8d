// Replaces the MCU, or the contents of its flash, on a board that is off.
#pragma once

#include <stddef.h>

#include <filesystem>
#include <string>

#include "board/core/store.h"
#include "board/mcu/mcu_parts.h"

namespace quil::board {

struct McuFitting {
    McuKind kind = McuKind::kGd32F303;
    std::string shipped =
        "V1.0.0";              // the version in the product file and of the image that it names
    std::string flashed = {};  // the version in the flash; "": the shipped one
    size_t imageSize = 8192;   // bytes, of both images
};

// Changes the part and the shipped version in the product file, and writes the image that it names
// and the flash anew. Throws std::runtime_error if the directory holds no board.
void fitMcu(const std::filesystem::path& boardDirectory, const McuFitting&);

// Changes the flash alone: an image of that version, as large as the shipped one.
void flashMcu(const std::filesystem::path& boardDirectory, const std::string& version,
              Keeping = Keeping::kScratch);

}  // namespace quil::board
