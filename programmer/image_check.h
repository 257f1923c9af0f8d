// What an image has to be before anything is erased for it.
#pragma once

#include <string>
#include <vector>

#include "programmer/parts.h"

namespace quil::programmer {

struct ImageProblem {
    std::string what;  // "the image has 3000000 bytes, the part's flash 786432"
    std::string then;  // what happens when it is programmed all the same
};

// In the order of their weight; empty: a part starts it.
std::vector<ImageProblem> problemsOf(std::span<const uint8_t> image, const Part& part);

}  // namespace quil::programmer
