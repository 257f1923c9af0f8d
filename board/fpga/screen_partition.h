// The raw partition of screen parameters: a block count, then for each block the FPGA address, the
// length and the data. Count, address and length are 32-bit big-endian numbers.
#pragma once

#include <stdint.h>

#include <span>
#include <string>
#include <vector>

namespace quil::board {

inline constexpr char kScreenPartition[] = "/dev/block/by-name/screen";

struct ScreenBlock {
    uint32_t address;
    std::vector<uint8_t> data;
};

std::string makeScreenPartition(std::span<const ScreenBlock> blocks);
// The blocks up to the first malformed one.
std::vector<ScreenBlock> readScreenPartition(std::span<const uint8_t> partition);

// The parameters of a board from the factory: one block of each kind, and several of the kinds
// that have a range of addresses.
std::vector<ScreenBlock> factoryScreen();

}  // namespace quil::board
