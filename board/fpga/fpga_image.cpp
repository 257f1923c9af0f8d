#include "board/fpga/fpga_image.h"

#include <algorithm>
#include <stdexcept>

#include "board/core/bytes.h"

namespace quil::board {
namespace {

constexpr uint32_t kSyncWord = 0xFA5C0DE5;
constexpr size_t kSizeAt = 4, kCrcAt = 8, kVersionAt = 12, kVersionSize = 20, kHeaderSize = 32;
static_assert(kVersionAt + kVersionSize == kHeaderSize);

}  // namespace

std::string makeFpgaImage(std::string_view version, size_t size) {
    if (version.size() > kVersionSize) throw std::runtime_error("the FPGA version is too long");
    if (size <= kHeaderSize || size > UINT32_MAX) {
        throw std::runtime_error("an FPGA image cannot have " + std::to_string(size) + " bytes");
    }
    std::string image(size, '\0');
    uint32_t noise = crc32Of(bytesOf(version)) | 1;
    for (size_t i = kHeaderSize; i < size; ++i) {
        noise = noise * 1664525 + 1013904223;
        image[i] = static_cast<char>(noise >> 24);
    }
    putBig32(image, 0, kSyncWord);
    putBig32(image, kSizeAt, static_cast<uint32_t>(size));
    std::copy(version.begin(), version.end(), image.begin() + kVersionAt);
    putBig32(image, kCrcAt, crc32Of(bytesOf(image).subspan(kVersionAt)));
    return image;
}

FpgaImageCheck checkFpgaImage(std::span<const uint8_t> bytes) {
    FpgaImageCheck check;
    if (bytes.size() < kHeaderSize || big32(bytes, 0) != kSyncWord) {
        check.problem = "no sync word";
        return check;
    }
    check.size = big32(bytes, kSizeAt);
    const auto* version = reinterpret_cast<const char*>(bytes.data() + kVersionAt);
    check.version.assign(version, std::find(version, version + kVersionSize, '\0'));
    if (check.size <= kHeaderSize || check.size > bytes.size()) {
        check.problem = "the image ends before its size";
    } else if (crc32Of(bytes.first(check.size).subspan(kVersionAt)) != big32(bytes, kCrcAt)) {
        check.problem = "wrong CRC";
    }
    return check;
}

}  // namespace quil::board
