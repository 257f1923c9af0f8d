#include "tools/quilctl/files/fpga_file.h"

#include <array>

#include "board/core/bytes.h"
#include "board/fpga/serial_flash.h"

namespace quil::tools {
namespace {

// What an update erases before it writes: an image must not reach beyond.
constexpr size_t kErasedByUpdate = 0xD00000;

constexpr std::array<FpgaPlace, 3> kPlaces = {{
    {board::Product::kHeron, "the serial flash, as far as an update erases it", kErasedByUpdate},
    {board::Product::kKestrel, "the platform loads it from the file system at each start", 0},
    {board::Product::kWrenT507, "the serial flash", board::SerialFlash::kSize},
}};

}  // namespace

FpgaFile checkFpgaFile(const std::string& content) {
    return {content.size(), board::checkFpgaImage(board::bytesOf(content))};
}

std::span<const FpgaPlace> fpgaPlaces() { return kPlaces; }

std::string obstacleFor(const FpgaFile& file, const FpgaPlace& place) {
    if (place.room != 0 && file.size > place.room) {
        return "it has " + std::to_string(file.size) + " bytes, and there is room for " +
               std::to_string(place.room);
    }
    if (file.image.problem.empty()) return {};
    return "it is no FPGA image: " + file.image.problem;
}

std::string obstacleToFlash(const FpgaFile& file, const std::string& product) {
    for (const FpgaPlace& place : kPlaces) {
        if (place.room != 0 || product != board::nameOf(place.product)) continue;
        return "a " + product + " reads no image from its flash, " + place.place;
    }
    return obstacleFor(file, {{}, "", kErasedByUpdate});
}

}  // namespace quil::tools
