#include "tools/quilctl/programming/contract_checks.h"

#include "board/core/whole_file.h"
#include "tools/quilctl/output/result.h"

namespace quil::tools {
namespace {

using programmer::ImageProblem;
using programmer::Part;
using programmer::Protocol;

constexpr size_t kN32Block = 128, kMostN32Blocks = 255, kMostPages = 126;

// The last block is sent only when it is a short one; blocks are counted in 8 bits.
void checkN32(size_t size, std::vector<ImageProblem>& problems) {
    const size_t blocks = (size + kN32Block - 1) / kN32Block;
    if (blocks > kMostN32Blocks) {
        problems.push_back(
            {"the image has " + std::to_string(blocks) + " blocks of 128 bytes",
             "the flow counts them in 8 bits and sends " + std::to_string(blocks % 256)});
    }
    if (size % kN32Block == 0) {
        problems.push_back({"the image's " + std::to_string(size) + " bytes are a multiple of 128",
                            "the flow leaves out the last 128"});
    }
}

// The flow's own idea of pages, from the start of the flash to the image's end.
struct FlowPages {
    const char* chip;
    size_t size;
    bool addsOne;  // the last page, which is not full, is not counted otherwise
};
constexpr FlowPages kFlowPages[] = {{"gd32f303", 2048, false}, {"gd32f470", 4096, true}};

void checkErase(const Part& part, size_t size, std::vector<ImageProblem>& problems) {
    for (const FlowPages& pages : kFlowPages) {
        if (part.name != std::string(pages.chip)) continue;
        const size_t count = size / pages.size + (pages.addsOne ? 1 : 0), over = size % pages.size;
        if (count > kMostPages) {
            problems.push_back({"the flow erases " + std::to_string(count) + " pages for the image",
                                "its list holds 126 and breaks"});
        }
        if (over != 0 && !pages.addsOne) {
            problems.push_back({"the image ends " + std::to_string(over) + " bytes into a page",
                                "the flow does not erase that page: what it held before stays"});
        }
    }
}

}  // namespace

std::vector<ImageProblem> contractProblems(std::span<const uint8_t> image,
                                           const std::string& chip) {
    const Part* part = programmer::partNamed(chip);
    if (part == nullptr) return {{"there is no part " + chip, "the flow does nothing"}};
    auto problems = programmer::problemsOf(image, *part);
    if (image.empty() || image.size() > part->flashSize()) return problems;
    if (part->protocol == Protocol::kN32) {
        checkN32(image.size(), problems);
    } else {
        checkErase(*part, image.size(), problems);
    }
    return problems;
}

std::string sizesForContract(const std::string& chip) {
    const Part* part = programmer::partNamed(chip);
    if (part != nullptr && part->protocol == Protocol::kN32) {
        return "fewer than " + std::to_string(kMostN32Blocks * kN32Block) +
               " bytes, and no multiple of 128";
    }
    for (const FlowPages& pages : kFlowPages) {
        if (part == nullptr || part->name != std::string(pages.chip)) continue;
        return pages.addsOne ? "fewer than " + std::to_string(kMostPages * pages.size) + " bytes"
                             : "whole pages of " + std::to_string(pages.size) + " bytes, at most " +
                                   std::to_string(kMostPages);
    }
    return "an image that fits";
}

void checkForContract(const std::string& file, const std::string& chip, bool asIs) {
    if (asIs) return;
    const auto content = board::readWholeFile(file);
    if (!content) return;  // the flow says so itself
    const programmer::Bytes image(content->begin(), content->end());
    const auto problems = contractProblems(image, chip);
    if (problems.empty()) return;
    const Part* part = programmer::partNamed(chip);
    const bool isOfImage = part == nullptr || !programmer::problemsOf(image, *part).empty();
    throw Failure(kBadData, file + ": " + problems.front().what + ": " + problems.front().then,
                  (isOfImage ? "take an image for the part" : "quilctl mcu flash does it right") +
                      std::string("; --as-is does it all the same"));
}

}  // namespace quil::tools
