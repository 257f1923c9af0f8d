#include "programmer/image_check.h"

#include <algorithm>

#include "programmer/boot_loader.h"

namespace quil::programmer {
namespace {

constexpr size_t kVectors = 8;  // initial stack pointer, reset vector

uint32_t wordAt(std::span<const uint8_t> bytes, size_t at) {
    uint32_t word = 0;
    for (size_t i = 0; i < 4; ++i) word |= static_cast<uint32_t>(bytes[at + i]) << 8 * i;
    return word;
}

void checkVectors(std::span<const uint8_t> image, const Part& part,
                  std::vector<ImageProblem>& problems) {
    const uint32_t stack = wordAt(image, 0), reset = wordAt(image, 4);
    const char* const kNeverStarts = "the part never starts it";
    if (!part.inRam(stack) || stack % 4 != 0) {
        problems.push_back(
            {"the stack pointer " + hexOf(stack) + " is no word of the RAM of " + part.name,
             kNeverStarts});
    }
    if (reset % 2 == 0) {
        problems.push_back(
            {"the reset vector " + hexOf(reset) + " is even: no Thumb code", kNeverStarts});
    } else if (!part.inFlash(reset) || reset - kFlashBase >= image.size()) {
        problems.push_back(
            {"the reset vector " + hexOf(reset) + " lies outside the image", kNeverStarts});
    }
}

}  // namespace

std::vector<ImageProblem> problemsOf(std::span<const uint8_t> image, const Part& part) {
    if (image.empty()) return {{"the image is empty", "there is nothing to program"}};
    std::vector<ImageProblem> problems;
    if (image.size() > part.flashSize()) {
        problems.push_back({"the image has " + std::to_string(image.size()) +
                                " bytes, the flash of " + part.name + " " +
                                std::to_string(part.flashSize()),
                            "its end is refused"});
    }
    if (image.size() < kVectors) {
        problems.push_back(
            {"the image is shorter than a vector table", "the part never starts it"});
        return problems;
    }
    const bool isElf = image[0] == 0x7F && image[1] == 'E' && image[2] == 'L' && image[3] == 'F';
    if (isElf || image[0] == ':') {
        problems.push_back({isElf ? "the image is an ELF file, not the bytes of the flash"
                                  : "the image is an Intel HEX file, not the bytes of the flash",
                            "the part never starts it"});
        return problems;
    }
    checkVectors(image, part, problems);
    return problems;
}

}  // namespace quil::programmer
