// An FPGA image on the workstation: what its header says, and for which products it fits.
#pragma once

#include <span>
#include <string>

#include "board/board_directory.h"
#include "board/fpga/fpga_image.h"

namespace quil::tools {

struct FpgaFile {
    size_t size;  // bytes of the file
    board::FpgaImageCheck image;
};
FpgaFile checkFpgaFile(const std::string& content);

// Where a product has its image.
struct FpgaPlace {
    board::Product product;
    const char* place;
    size_t room;  // bytes; 0: the product does not start its FPGA from the flash
};
std::span<const FpgaPlace> fpgaPlaces();

// Why the image cannot be used there; "" when it can.
std::string obstacleFor(const FpgaFile& file, const FpgaPlace& place);

// Why an update of the flash with it should not begin on a board of that product; "" when it may.
std::string obstacleToFlash(const FpgaFile& file, const std::string& product);

}  // namespace quil::tools
