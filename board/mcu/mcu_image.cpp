#include "board/mcu/mcu_image.h"

#include <algorithm>
#include <stdexcept>

#include "board/core/crc32.h"

namespace quil::board {
namespace {

constexpr size_t kInfoAt = 0x200, kImageSizeAt = 0x208, kCodeAt = 0x220, kCrcSize = 4;
constexpr std::string_view kMagic = "MCUIMAGE";

uint32_t word(std::span<const uint8_t> bytes, size_t at) {
    return static_cast<uint32_t>(bytes[at]) | static_cast<uint32_t>(bytes[at + 1]) << 8 |
           static_cast<uint32_t>(bytes[at + 2]) << 16 | static_cast<uint32_t>(bytes[at + 3]) << 24;
}

void put(std::string& bytes, size_t at, uint32_t value) {
    for (size_t i = 0; i < 4; ++i) bytes.at(at + i) = static_cast<char>(value >> (8 * i));
}

std::span<const uint8_t> bytesOf(const std::string& text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// An xorshift of the version's own: any two versions' code differ in nearly every byte.
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
    put(image, 0, kMcuRamBase + part.ramSize);
    put(image, 4, kMcuFlashBase + static_cast<uint32_t>(kCodeAt) + 1);
    image.replace(kInfoAt, kMagic.size(), kMagic);
    put(image, kImageSizeAt, static_cast<uint32_t>(size));
    put(image, kImageSizeAt + 4, 0);
    std::string field(version);
    field.resize(kMcuImageVersionMax + 1);
    image.replace(kMcuImageVersionAt, field.size(), field);
    put(image, size - kCrcSize, crc32(bytesOf(image).first(size - kCrcSize)));
    return image;
}

McuImageCheck checkMcuImage(const McuPart& part, std::span<const uint8_t> flash) {
    const auto erased = [](uint8_t byte) { return byte == 0xFF; };
    if (std::all_of(flash.begin(), flash.begin() + 8, erased)) return {"the flash is empty", ""};
    const uint32_t stack = word(flash, 0), reset = word(flash, 4);
    if (stack < kMcuRamBase || stack > kMcuRamBase + part.ramSize || stack % 4 != 0) {
        return {"the stack pointer lies outside the RAM", ""};
    }
    if (!std::equal(kMagic.begin(), kMagic.end(), flash.begin() + kInfoAt)) {
        return {"there is no image header", ""};
    }
    const uint32_t length = word(flash, kImageSizeAt);
    if (length < kMcuImageLeast || length > part.flashSize()) {
        return {"the image's length is out of range", ""};
    }
    if (reset % 2 == 0 || reset < kMcuFlashBase || reset >= kMcuFlashBase + length) {
        return {"the reset vector lies outside the image", ""};
    }
    if (crc32(flash.first(length - kCrcSize)) != word(flash, length - kCrcSize)) {
        return {"the image's CRC is wrong", ""};
    }
    const auto* text = reinterpret_cast<const char*>(flash.data()) + kMcuImageVersionAt;
    return {"", std::string(text, std::find(text, text + kMcuImageVersionMax, '\0'))};
}

}  // namespace quil::board
