#include "board/mcu/mcu_image.h"

#include <algorithm>
#include <stdexcept>

#include "board/core/bytes.h"

namespace quil::board {
namespace {

constexpr size_t kInfoAt = 0x200, kImageSizeAt = 0x208, kCodeAt = 0x220, kCrcSize = 4;
constexpr std::string_view kMagic = "MCUIMAGE";

// An xorshift seeded with the version: the code of any two versions differs in nearly every byte.
std::string codeOf(std::string_view version, size_t size) {
    uint32_t state = 0x9E3779B9;
    for (const char c : version) state = state * 31 + static_cast<uint8_t>(c);
    state |= 1;
    std::string code(size, '\0');
    for (char& byte : code) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<char>(state >> 8);
    }
    return code;
}

}  // namespace

std::string makeMcuImage(McuKind kind, std::string_view version, size_t size) {
    const McuPart& part = partOf(kind);
    if (size < kMcuImageLeast) throw std::invalid_argument("an MCU image of so few bytes");
    if (size > part.flashSize()) throw std::invalid_argument("an MCU image beyond the flash");
    if (version.size() > kMcuImageVersionMax) throw std::invalid_argument("too long a version");
    std::string image = codeOf(version, size);
    putLittle32(image, 0, kMcuRamBase + part.ramSize);
    putLittle32(image, 4, kMcuFlashBase + static_cast<uint32_t>(kCodeAt) + 1);
    image.replace(kInfoAt, kMagic.size(), kMagic);
    putLittle32(image, kImageSizeAt, static_cast<uint32_t>(size));
    putLittle32(image, kImageSizeAt + 4, 0);
    std::string field(version);
    field.resize(kMcuImageVersionMax + 1);
    image.replace(kMcuImageVersionAt, field.size(), field);
    putLittle32(image, size - kCrcSize, crc32Of(bytesOf(image).first(size - kCrcSize)));
    return image;
}

uint32_t mcuImageLength(std::span<const uint8_t> flash) {
    const bool hasHead = std::equal(kMagic.begin(), kMagic.end(), flash.begin() + kInfoAt);
    return hasHead ? little32(flash, kImageSizeAt) : 0;
}

McuImageCheck checkMcuImage(const McuPart& part, std::span<const uint8_t> flash) {
    const auto erased = [](uint8_t byte) { return byte == 0xFF; };
    if (std::all_of(flash.begin(), flash.begin() + 8, erased)) return {"the flash is empty", ""};
    const uint32_t stack = little32(flash, 0), reset = little32(flash, 4);
    if (stack < kMcuRamBase || stack > kMcuRamBase + part.ramSize || stack % 4 != 0) {
        return {"the stack pointer lies outside the RAM", ""};
    }
    if (!std::equal(kMagic.begin(), kMagic.end(), flash.begin() + kInfoAt)) {
        return {"there is no image header", ""};
    }
    const uint32_t length = little32(flash, kImageSizeAt);
    if (length < kMcuImageLeast || length > part.flashSize()) {
        return {"the image's length is out of range", ""};
    }
    if (reset % 2 == 0 || reset < kMcuFlashBase || reset >= kMcuFlashBase + length) {
        return {"the reset vector lies outside the image", ""};
    }
    if (crc32Of(flash.first(length - kCrcSize)) != little32(flash, length - kCrcSize)) {
        return {"the image's CRC is wrong", ""};
    }
    const auto* text = reinterpret_cast<const char*>(flash.data()) + kMcuImageVersionAt;
    return {"", std::string(text, std::find(text, text + kMcuImageVersionMax, '\0'))};
}

}  // namespace quil::board
