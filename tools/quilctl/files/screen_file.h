// The partition of screen parameters, taken apart for people: what its blocks are, what a load
// sends of each, and where it is damaged. A parser of its own, to look at the library's from
// outside.
#pragma once

#include <stdint.h>

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/quilctl/output/result.h"
#include "tools/quilctl/output/values.h"

namespace quil::tools {

inline constexpr size_t kScreenPartitionMax = 0x200000;  // bytes that a load reads
inline constexpr size_t kScreenBlocksMax = 60;

struct ScreenFrames {
    size_t count;
    size_t size;  // bytes of each on the wire
};

struct ScreenFileBlock {
    size_t offset;  // of the block's header in the file
    uint32_t address;
    std::span<const uint8_t> data;
    size_t packedAt;  // offset of the data in a load's packed buffer
    std::string kind;
    std::vector<ScreenFrames> frames;  // what a load sends, in no particular order
    std::string sent;                  // the frames in words
    std::string remark;                // what is odd about it; empty when nothing is
};

struct ScreenFileDamage {
    size_t offset;
    std::string reason;
};

struct ScreenFile {
    uint32_t count = 0;  // as the header says
    std::vector<ScreenFileBlock> blocks;
    std::optional<ScreenFileDamage> damage;
    size_t size = 0;  // bytes that header and blocks take
};

// The blocks refer to `bytes`.
ScreenFile readScreenFile(std::span<const uint8_t> bytes);

Json jsonOf(const ScreenFile& file);

// What one block file becomes; the partition is these, in order.
struct ScreenFilePart {
    uint32_t address;
    Bytes data;
};
// Throws std::runtime_error when a load could not take such a partition.
Bytes buildScreenFile(const std::vector<ScreenFilePart>& parts);

}  // namespace quil::tools
