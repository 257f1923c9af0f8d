// What the tables of functions share.
#pragma once

#include <array>
#include <vector>

#include "config/config_info.h"
#include "tests/swarm/faults/flows.h"

namespace quil::faults {

inline constexpr char kUart[] = "/dev/ttyS3";

inline std::array<uint8_t, 4096> g_bytes;
inline std::array<char, 256> g_text;

inline void nothing(board::Board& /*board*/) {}
inline void parsed(board::Board& /*board*/) { parseConfigInfo(); }

template <auto Plain>
int64_t plain(board::Board& /*board*/) {
    return Plain();
}

std::vector<Function> mcuFunctions();
std::vector<Function> fpgaFunctions();

inline std::vector<Function> joined(std::initializer_list<std::vector<Function>> lists) {
    std::vector<Function> all;
    for (const auto& some : lists) all.insert(all.end(), some.begin(), some.end());
    return all;
}

}  // namespace quil::faults
