// Numbers and bytes as people type them.
#pragma once

#include <stdint.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "host/byte_view.h"

namespace quil::tools {

using Bytes = std::vector<uint8_t>;

// Decimal, or hexadecimal after "0x"; nothing else, and not above `maximum`.
std::optional<uint64_t> parseNumber(const std::string& text, uint64_t maximum);

// Pairs of hexadecimal digits: "01 02", "0102", "0x01,0x02". Nothing for anything else.
std::optional<Bytes> parseHex(const std::string& text);

std::string toHex(host::ByteView bytes);  // "01 02"

// At most `limit` bytes as hex, then "..".
std::string toShortHex(host::ByteView bytes, size_t limit);

std::string hex32(uint32_t value);  // "0x00000001"

// Board time for a table.
inline double secondsOf(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

}  // namespace quil::tools
