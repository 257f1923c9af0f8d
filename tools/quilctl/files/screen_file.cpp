#include "tools/quilctl/files/screen_file.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <stdexcept>

namespace quil::tools {
namespace {

constexpr size_t kCountSize = 4, kBlockHeader = 8;
constexpr size_t kOverhead = 6;  // command, address, and the 0 at the end

// How a load makes frames from a block of this kind.
enum class Rule { kWhole, kTopology, kReceiving, kSubPixelTable, kGamma, kControl, kSubPixel };

struct Kind {
    uint32_t first, last;
    const char* name;
    Rule rule;
    size_t dataSize;  // of the frame, when the block is sent whole
};
constexpr std::array<Kind, 10> kKinds = {
    {{0x10018000, 0x10018000, "topology header", Rule::kWhole, 5120},
     {0x10B00000, 0x10B4C000, "routing topology", Rule::kTopology, 16},
     {0x10300000, 0x10313000, "screen table", Rule::kWhole, 4096},
     {0x10200000, 0x10204000, "receiving parameter", Rule::kReceiving, 4096},
     {0x10A43000, 0x10A43000, "sub-pixel table", Rule::kSubPixelTable, 512},
     {0x10810000, 0x10810000, "net-gap table 1", Rule::kWhole, 4096},
     {0x10820000, 0x10820000, "net-gap table 2", Rule::kWhole, 4096},
     {0x10400000, 0x10400000, "gamma", Rule::kGamma, 2048},
     {0x10000100, 0x10000100, "control", Rule::kControl, 0},
     {0x10A45000, 0x10A45000, "sub-pixel settings", Rule::kSubPixel, 0}}};

constexpr uint32_t kTopologyHeader = 0x10018000, kReceivingWithByte = 0x10200000;
constexpr size_t kUnitsAt = 3, kUnitsStride = 256, kUnitsCount = 20, kUnitSize = 16;
constexpr size_t kGammaParts = 3, kGammaStride = 0x10000;
constexpr size_t kControlNeeds = 28, kReceivingNeeds = 266, kSubPixelNeeds = 157;
constexpr size_t kSubPixelEnableAt = 24;

uint32_t wordAt(std::span<const uint8_t> bytes, size_t at) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) value = value << 8 | bytes[at + i];
    return value;
}

std::string number(size_t value) { return std::to_string(value); }

std::string framesText(size_t count, size_t size) {
    return number(count) + (count == 1 ? " frame of " : " frames of ") + number(size) + " bytes";
}

const Kind* kindOf(uint32_t address) {
    for (const Kind& kind : kKinds) {
        if (address >= kind.first && address <= kind.last) return &kind;
    }
    return nullptr;
}

std::string needs(const ScreenFileBlock& block, size_t size) {
    if (block.data.size() >= size) return "";
    return "needs " + number(size) + " bytes: the next blocks' data is taken for the rest";
}

void sendWhole(ScreenFileBlock& block, size_t dataSize) {
    block.frames.push_back({1, dataSize + kOverhead});
    block.sent = framesText(1, dataSize + kOverhead);
    if (block.data.size() > dataSize) block.remark = "cut to " + number(dataSize) + " bytes";
    if (block.data.size() < dataSize) block.remark = "shorter than its frame";
}

void sendControl(ScreenFileBlock& block) {
    block.frames = {{1, 8}, {2, 7}};
    block.sent = "bytes 3-4 to 0x10000103, byte 11 to 0x1000010B, byte 27 to 0x1000011B";
    block.remark = needs(block, kControlNeeds);
}

// The byte that a load reads at an offset of a block's data. Beyond the block it reads the data of
// the next blocks, then 0.
uint8_t loadedByte(const Bytes& packed, const ScreenFileBlock& block, size_t at) {
    const size_t position = block.packedAt + at;
    return position < packed.size() ? packed[position] : uint8_t{0};
}

void sendSubPixel(ScreenFileBlock& block, const Bytes& packed) {
    const bool isOff = loadedByte(packed, block, kSubPixelEnableAt) == 0;
    block.frames = {{1, isOff ? 26U : 7U}, {1, 10}, {isOff ? 2U : 1U, 114}, {2, 7}};
    block.sent =
        std::string("parameter, IP, filter, enable, refresh") + (isOff ? ", filter again" : "");
    block.remark = needs(block, kSubPixelNeeds);
}

void sendTopology(ScreenFileBlock& block, std::optional<uint16_t> units) {
    const size_t most = (kScreenPartitionMax - block.packedAt + kUnitSize - 1) / kUnitSize;
    const size_t count = std::min<size_t>(units.value_or(0), most);
    block.frames.push_back({count, kUnitSize + kOverhead});
    block.sent = count == 0 ? "nothing: its count is 0" : framesText(count, kUnitSize + kOverhead);
    if (!units) block.sent = "nothing: there is no count for it";
    if (count * kUnitSize > block.data.size()) {
        block.remark = needs(block, count * kUnitSize);
    }
}

void sendByKind(ScreenFileBlock& block, const Kind& kind, const Bytes& packed) {
    switch (kind.rule) {
        case Rule::kTopology:
            return;
        case Rule::kWhole:
            return sendWhole(block, kind.dataSize);
        case Rule::kReceiving:
            sendWhole(block, kind.dataSize);
            if (block.address != kReceivingWithByte) return;
            block.frames.push_back({1, 7});
            block.sent += ", byte 265 to 0x10200109";
            if (block.remark.empty()) block.remark = needs(block, kReceivingNeeds);
            return;
        case Rule::kSubPixelTable:
            sendWhole(block, kind.dataSize);
            block.frames.push_back({2, 262});
            block.sent += ", 2 of 262 bytes";
            return;
        case Rule::kGamma:
            block.frames.push_back({kGammaParts, kind.dataSize + kOverhead});
            block.sent = framesText(kGammaParts, kind.dataSize + kOverhead);
            block.remark = needs(block, (kGammaParts - 1) * kGammaStride + kind.dataSize);
            return;
        case Rule::kControl:
            return sendControl(block);
        case Rule::kSubPixel:
            return sendSubPixel(block, packed);
    }
}

// The counts of the last topology header: units of each topology block, in their order.
std::vector<uint16_t> unitCounts(const std::vector<ScreenFileBlock>& blocks, const Bytes& packed) {
    std::vector<uint16_t> counts(kUnitsCount);
    for (const ScreenFileBlock& block : blocks) {
        if (block.address != kTopologyHeader) continue;
        for (size_t i = 0; i < kUnitsCount; ++i) {
            const size_t at = kUnitsAt + i * kUnitsStride;
            counts[i] = static_cast<uint16_t>(loadedByte(packed, block, at) |
                                              loadedByte(packed, block, at + 1) << 8);
        }
    }
    return counts;
}

void describe(std::vector<ScreenFileBlock>& blocks) {
    Bytes packed;
    for (ScreenFileBlock& block : blocks) {
        block.packedAt = packed.size();
        packed.insert(packed.end(), block.data.begin(), block.data.end());
    }
    const auto counts = unitCounts(blocks, packed);
    size_t topologies = 0;
    for (ScreenFileBlock& block : blocks) {
        const Kind* kind = kindOf(block.address);
        block.kind = kind != nullptr ? kind->name : "unknown";
        if (kind == nullptr) {
            block.sent = "nothing";
        } else if (kind->rule == Rule::kTopology) {
            const size_t at = topologies++;
            sendTopology(block, at < counts.size() ? std::optional(counts[at]) : std::nullopt);
        } else {
            sendByKind(block, *kind, packed);
        }
    }
}

// What is wrong with the header at `offset`; empty when nothing is.
std::string damageAt(std::span<const uint8_t> bytes, size_t offset, size_t index) {
    const std::string name = "block " + number(index);
    if (bytes.size() - offset < kBlockHeader) return name + ": the file ends inside its header";
    if (wordAt(bytes, offset) == 0) return name + " has the address 0";
    const uint32_t length = wordAt(bytes, offset + 4);
    if (length == 0) return name + " has no data";
    const size_t left = bytes.size() - offset - kBlockHeader;
    if (length <= left) return "";
    return name + " has " + number(length) + " bytes of data, but only " + number(left) +
           " are left";
}

}  // namespace

ScreenFile readScreenFile(std::span<const uint8_t> bytes) {
    ScreenFile file;
    bytes = bytes.first(std::min(bytes.size(), kScreenPartitionMax));
    if (bytes.size() < kCountSize) {
        file.damage = {0, "the file ends inside the block count"};
        return file;
    }
    file.count = wordAt(bytes, 0);
    file.size = kCountSize;
    if (file.count > kScreenBlocksMax) {
        file.damage = {0, "a block count of " + number(file.count) + ": the most is " +
                              number(kScreenBlocksMax)};
    } else if (file.count == 0) {
        file.damage = {0, "there are no blocks"};
    }
    while (!file.damage && file.blocks.size() < file.count) {
        const std::string reason = damageAt(bytes, file.size, file.blocks.size());
        if (!reason.empty()) {
            file.damage = {file.size, reason};
            break;
        }
        const uint32_t length = wordAt(bytes, file.size + 4);
        file.blocks.push_back({file.size,
                               wordAt(bytes, file.size),
                               bytes.subspan(file.size + kBlockHeader, length),
                               0,
                               "",
                               {},
                               "",
                               ""});
        file.size += kBlockHeader + length;
    }
    describe(file.blocks);
    return file;
}

Json jsonOf(const ScreenFile& file) {
    Json json = {{"count", file.count}, {"size", file.size}, {"blocks", Json::array()}};
    for (const ScreenFileBlock& block : file.blocks) {
        json["blocks"].push_back({{"offset", block.offset},
                                  {"address", block.address},
                                  {"length", block.data.size()},
                                  {"kind", block.kind},
                                  {"sent", block.sent},
                                  {"remark", block.remark}});
    }
    if (file.damage) {
        json["damage"] = {{"offset", file.damage->offset}, {"reason", file.damage->reason}};
    }
    return json;
}

Bytes buildScreenFile(const std::vector<ScreenFilePart>& parts) {
    if (parts.empty()) throw std::runtime_error("there are no blocks");
    if (parts.size() > kScreenBlocksMax) {
        throw std::runtime_error(number(parts.size()) + " blocks: the most is " +
                                 number(kScreenBlocksMax));
    }
    Bytes bytes;
    const auto put = [&bytes](size_t value) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes.push_back(static_cast<uint8_t>(value >> shift));
        }
    };
    put(parts.size());
    for (const ScreenFilePart& part : parts) {
        if (part.address == 0) throw std::runtime_error("a block cannot have the address 0");
        if (part.data.empty()) throw std::runtime_error("a block has no data");
        put(part.address);
        put(part.data.size());
        bytes.insert(bytes.end(), part.data.begin(), part.data.end());
    }
    if (bytes.size() > kScreenPartitionMax) {
        throw std::runtime_error(number(bytes.size()) + " bytes: a load reads no more than " +
                                 number(kScreenPartitionMax));
    }
    return bytes;
}

}  // namespace quil::tools
