#include "board/fpga/fpga_image.h"

#include <algorithm>
#include <stdexcept>

namespace quil::board {
namespace {

constexpr uint32_t kSyncWord = 0xFA5C0DE5;
constexpr size_t kSizeAt = 4, kCrcAt = 8, kVersionAt = 12, kVersionSize = 20, kHeaderSize = 32;
static_assert(kVersionAt + kVersionSize == kHeaderSize);

uint32_t wordAt(std::span<const uint8_t> bytes, size_t at) {
    uint32_t word = 0;
    for (size_t i = 0; i < 4; ++i) word = word << 8 | bytes[at + i];
    return word;
}

void putWord(std::string& bytes, size_t at, uint32_t word) {
    for (size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(word >> (24 - 8 * i));
}

std::span<const uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

}  // namespace

std::string makeFpgaImage(std::string_view version, size_t size) {
    if (version.size() > kVersionSize) throw std::runtime_error("the FPGA version is too long");
    if (size <= kHeaderSize || size > UINT32_MAX) {
        throw std::runtime_error("an FPGA image cannot have " + std::to_string(size) + " bytes");
    }
    std::string image(size, '\0');
    uint32_t noise = crc32(bytesOf(version)) | 1;
    for (size_t i = kHeaderSize; i < size; ++i) {
        noise = noise * 1664525 + 1013904223;
        image[i] = static_cast<char>(noise >> 24);
    }
    putWord(image, 0, kSyncWord);
    putWord(image, kSizeAt, static_cast<uint32_t>(size));
    std::copy(version.begin(), version.end(), image.begin() + kVersionAt);
    putWord(image, kCrcAt, crc32(bytesOf(image).subspan(kVersionAt)));
    return image;
}

FpgaImageCheck checkFpgaImage(std::span<const uint8_t> bytes) {
    FpgaImageCheck check;
    if (bytes.size() < kHeaderSize || wordAt(bytes, 0) != kSyncWord) {
        check.problem = "no sync word";
        return check;
    }
    check.size = wordAt(bytes, kSizeAt);
    const auto* version = reinterpret_cast<const char*>(bytes.data() + kVersionAt);
    check.version.assign(version, std::find(version, version + kVersionSize, '\0'));
    if (check.size <= kHeaderSize || check.size > bytes.size()) {
        check.problem = "the image ends before its size";
    } else if (crc32(bytes.first(check.size).subspan(kVersionAt)) != wordAt(bytes, kCrcAt)) {
        check.problem = "wrong CRC";
    }
    return check;
}

}  // namespace quil::board
