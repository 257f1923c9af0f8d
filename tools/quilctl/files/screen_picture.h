// A partition of screen parameters as a picture: its blocks, the cards of its topologies, its gamma
// curves. The page, files and terminals show the same.
#pragma once

#include <string>
#include <vector>

#include "tools/quilctl/files/screen_file.h"

namespace quil::tools {

struct ScreenPicture {
    struct Bar {
        uint32_t address;
        std::string kind;
        size_t length;
    };
    // A card is 16 bytes of a topology block; `foreign` of them lie behind the block's end.
    struct Chain {
        uint32_t address;
        size_t cards, foreign;
    };
    struct Curve {
        uint32_t address;
        std::vector<uint16_t> values;  // big-endian in the block; few enough to be drawn
    };
    std::vector<Bar> bars = {};
    std::vector<Chain> chains = {};
    std::vector<Curve> curves = {};
};

ScreenPicture pictureOf(const ScreenFile& file);
// Styled by its attributes, and by whoever knows its classes; an element that stands for a block
// has the block's address as data-address.
std::string svgOf(const ScreenPicture& picture);
std::string textPictureOf(const ScreenPicture& picture);

}  // namespace quil::tools
