// Byte strings, and vectors of anything else: joined, and as the text "02 10 00".
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <span>
#include <string>
#include <vector>

namespace quil::tests {

using Bytes = std::vector<uint8_t>;

template <typename Item>
std::vector<Item> operator+(std::vector<Item> left, const std::vector<Item>& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline std::string hexOf(std::span<const uint8_t> bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        char digits[4];
        snprintf(digits, sizeof(digits), text.empty() ? "%02x" : " %02x", byte);
        text += digits;
    }
    return text;
}

inline Bytes bytesOf(const std::string& text) {
    Bytes bytes;
    for (size_t at = 0; at + 1 < text.size(); at += 3) {
        bytes.push_back(static_cast<uint8_t>(std::stoi(text.substr(at, 2), nullptr, 16)));
    }
    return bytes;
}

// The bytes as characters, as file contents are given.
inline std::string textOf(std::span<const uint8_t> bytes) { return {bytes.begin(), bytes.end()}; }

// Four bytes, the highest first.
inline void appendWord(Bytes& bytes, uint32_t value) {
    for (const int shift : {24, 16, 8, 0}) bytes.push_back(static_cast<uint8_t>(value >> shift));
}

inline uint8_t xorOf(std::span<const uint8_t> bytes) {
    uint8_t sum = 0;
    for (const uint8_t byte : bytes) sum ^= byte;
    return sum;
}

}  // namespace quil::tests
