// Numbers in bytes and bytes in text, as wires, images and traces have them.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <numeric>
#include <span>
#include <string>
#include <string_view>

namespace quil::board {

inline uint16_t little16(std::span<const uint8_t> bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

inline uint32_t little32(std::span<const uint8_t> bytes, size_t at) {
    return little16(bytes, at) | static_cast<uint32_t>(little16(bytes, at + 2)) << 16;
}

inline uint32_t big32(std::span<const uint8_t> bytes, size_t at) {
    uint32_t word = 0;
    for (size_t i = 0; i < 4; ++i) word = word << 8 | bytes[at + i];
    return word;
}

// `Bytes` is a container of characters or of uint8_t that reaches to the number's end.
template <typename Bytes>
void putLittle16(Bytes& bytes, size_t at, uint32_t value) {
    using Byte = typename Bytes::value_type;
    for (size_t i = 0; i < 2; ++i) bytes[at + i] = static_cast<Byte>(value >> (8 * i));
}

template <typename Bytes>
void putLittle32(Bytes& bytes, size_t at, uint32_t value) {
    putLittle16(bytes, at, value);
    putLittle16(bytes, at + 2, value >> 16);
}

template <typename Bytes>
void putBig32(Bytes& bytes, size_t at, uint32_t value) {
    using Byte = typename Bytes::value_type;
    for (size_t i = 0; i < 4; ++i) bytes[at + i] = static_cast<Byte>(value >> (24 - 8 * i));
}

inline std::span<const uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

inline std::string_view textOf(std::span<const uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

inline uint8_t xorOf(std::span<const uint8_t> bytes) {
    return std::accumulate(bytes.begin(), bytes.end(), uint8_t{0}, std::bit_xor<>());
}

// The CRC-32 of IEEE 802.3, as in zip files.
uint32_t crc32Of(std::span<const uint8_t> bytes);

// "55 bb 00"
inline std::string hexOf(std::span<const uint8_t> bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        if (!text.empty()) text += ' ';
        text += {kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return text;
}

// How many of `most` steps are done when power goes inside an operation: none to all, and the same
// at each replay with the same seed.
inline size_t tornAt(uint64_t seed, size_t most) {
    uint64_t mixed = (seed + 0x9E3779B97F4A7C15) * 0xBF58476D1CE4E5B9;
    mixed ^= mixed >> 29;
    return static_cast<size_t>(mixed % (most + 1));
}

// The same at a chosen place. 0: drawn; 1 to 3: nothing, half or all of it is done.
struct Tear {
    size_t of(size_t most) const {
        return where == 0 ? tornAt(seed, most) : most * (where - 1) / 2;
    }
    Tear next() const { return {seed + 1, where}; }

    uint64_t seed;
    unsigned where = 0;
};
inline constexpr unsigned kTears = 4;

}  // namespace quil::board
