#include "board/fpga/screen_partition.h"

#include <array>

#include "board/core/bytes.h"

namespace quil::board {
namespace {

void append(std::string& bytes, size_t value) {
    bytes.resize(bytes.size() + 4);
    putBig32(bytes, bytes.size() - 4, static_cast<uint32_t>(value));
}

uint32_t takeWord(std::span<const uint8_t>& bytes) {
    const uint32_t value = big32(bytes, 0);
    bytes = bytes.subspan(4);
    return value;
}

struct FactoryRow {
    uint32_t address;
    size_t length;
};
constexpr std::array<FactoryRow, 17> kFactoryRows = {{{0x10018000, 5120},
                                                      {0x10B00000, 64},
                                                      {0x10B04000, 32},
                                                      {0x10B4C000, 160},
                                                      {0x10300000, 4096},
                                                      {0x10301000, 4096},
                                                      {0x10313000, 1000},
                                                      {0x10200000, 4096},
                                                      {0x10201000, 4096},
                                                      {0x10204000, 512},
                                                      {0x10A43000, 512},
                                                      {0x10810000, 4096},
                                                      {0x10820000, 2048},
                                                      {0x10400000, 0x20800},
                                                      {0x10000100, 64},
                                                      {0x10A45000, 157},
                                                      {0x10A46000, 16}}};

// The topology header counts the topology blocks' units of 16 bytes, in the order of the blocks.
constexpr size_t kCountsAt = 3, kCountStride = 256;
constexpr std::array<uint8_t, 3> kUnits = {4, 2, 10};

std::vector<uint8_t> noise(uint32_t address, size_t length) {
    std::vector<uint8_t> data(length);
    uint32_t state = address | 1;
    for (uint8_t& byte : data) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<uint8_t>(state >> 24);
    }
    return data;
}

}  // namespace

std::string makeScreenPartition(std::span<const ScreenBlock> blocks) {
    std::string partition;
    append(partition, blocks.size());
    for (const ScreenBlock& block : blocks) {
        append(partition, block.address);
        append(partition, block.data.size());
        partition.append(block.data.begin(), block.data.end());
    }
    return partition;
}

std::vector<ScreenBlock> readScreenPartition(std::span<const uint8_t> partition) {
    constexpr size_t kBlockHeader = 8;
    std::vector<ScreenBlock> blocks;
    if (partition.size() < 4) return blocks;
    for (uint32_t left = takeWord(partition); left > 0; --left) {
        if (partition.size() < kBlockHeader) break;
        const uint32_t address = takeWord(partition);
        const uint32_t length = takeWord(partition);
        if (address == 0 || length == 0 || length > partition.size()) break;
        blocks.push_back({address, {partition.begin(), partition.begin() + length}});
        partition = partition.subspan(length);
    }
    return blocks;
}

std::vector<ScreenBlock> factoryScreen() {
    std::vector<ScreenBlock> blocks;
    blocks.reserve(kFactoryRows.size());
    for (const FactoryRow& row : kFactoryRows) {
        blocks.push_back({row.address, noise(row.address, row.length)});
    }
    std::vector<uint8_t>& topology = blocks.front().data;
    for (size_t i = 0; i < topology.size(); ++i) {
        if (i % kCountStride == kCountsAt || i % kCountStride == kCountsAt + 1) topology[i] = 0;
    }
    for (size_t i = 0; i < kUnits.size(); ++i) topology[kCountsAt + i * kCountStride] = kUnits[i];
    return blocks;
}

}  // namespace quil::board
