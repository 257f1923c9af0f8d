// What the board's own flow does with an image that does not suit it. It looks at few answers, so a
// person should know before.
#pragma once

#include <string>
#include <vector>

#include "programmer/image_check.h"

namespace quil::tools {

// `chip` as the flow gets it. In the order of their weight.
std::vector<programmer::ImageProblem> contractProblems(std::span<const uint8_t> image,
                                                       const std::string& chip);

// Of images that suit it, in words.
std::string sizesForContract(const std::string& chip);

// Throws a Failure with the first problem; unless `asIs`, which leaves only what --as-is means.
void checkForContract(const std::string& file, const std::string& chip, bool asIs);

}  // namespace quil::tools
