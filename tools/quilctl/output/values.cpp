#include "tools/quilctl/output/values.h"

#include <ctype.h>
#include <stdio.h>

#include <algorithm>
#include <charconv>

namespace quil::tools {
namespace {

bool hasHexPrefix(const std::string& text, size_t at = 0) {
    return text.size() >= at + 2 && text[at] == '0' && (text[at + 1] == 'x' || text[at + 1] == 'X');
}

bool separates(char c) { return c == ' ' || c == ',' || c == '\t' || c == '\n' || c == '\r'; }

}  // namespace

std::optional<uint64_t> parseNumber(const std::string& text, uint64_t maximum) {
    const bool hex = hasHexPrefix(text);
    const char* begin = text.data() + (hex ? 2 : 0);
    const char* end = text.data() + text.size();
    uint64_t value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value, hex ? 16 : 10);
    if (error != std::errc() || stop != end || value > maximum) return std::nullopt;
    return value;
}

std::optional<Bytes> parseHex(const std::string& text) {
    Bytes bytes;
    for (size_t at = 0; at < text.size();) {
        if (separates(text[at])) {
            ++at;
            continue;
        }
        if (hasHexPrefix(text, at)) at += 2;
        uint8_t byte = 0;
        const char* digits = text.data() + at;
        if (at + 2 > text.size()) return std::nullopt;
        const auto [stop, error] = std::from_chars(digits, digits + 2, byte, 16);
        if (error != std::errc() || stop != digits + 2) return std::nullopt;
        bytes.push_back(byte);
        at += 2;
    }
    return bytes;
}

std::string toHex(host::ByteView bytes) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(3 * bytes.size());
    for (const uint8_t byte : bytes) {
        if (!text.empty()) text += ' ';
        text += kDigits[byte >> 4U];
        text += kDigits[byte & 0xFU];
    }
    return text;
}

std::string toShortHex(host::ByteView bytes, size_t limit) {
    if (bytes.size() <= limit) return toHex(bytes);
    return toHex(bytes.first(limit)) + " ..";
}

std::string hex32(uint32_t value) {
    char text[16];
    snprintf(text, sizeof(text), "0x%08X", value);
    return text;
}

}  // namespace quil::tools
