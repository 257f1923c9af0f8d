// What the FPGA's memory has to hold after a partition was loaded, worked out write by write, by
// code that shares nothing with the library.
#pragma once

#include <stdint.h>

#include <algorithm>
#include <array>
#include <map>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace quil::tests {

class ScreenReading {
  public:
    using Memory = std::vector<std::pair<uint32_t, uint8_t>>;  // in the order of the addresses

    explicit ScreenReading(std::span<const uint8_t> partition)
        : mPartition(partition.first(std::min(partition.size(), kPartition))) {
        takeBlocks();
        topology();
        for (const Block& block : mBlocks) wholeBlock(block);
        fixedParameters();
        netGap();
    }

    Memory memory() const {
        Memory all;
        for (const auto& [number, page] : mPages) {
            for (size_t i = 0; i < page.size(); ++i) {
                if (page[i] < 0) continue;
                all.emplace_back(static_cast<uint32_t>(number * kPage + i),
                                 static_cast<uint8_t>(page[i]));
            }
        }
        return all;
    }

  private:
    static constexpr size_t kPartition = 0x200000, kPage = 4096;
    using Bytes = std::span<const uint8_t>;
    using Page = std::array<int16_t, kPage>;  // -1: not written

    struct Block {
        uint32_t address, length;
        size_t packedAt;
    };

    // Behind the partition and the packed data there are zeros.
    static uint8_t byteOf(Bytes bytes, size_t at) { return at < bytes.size() ? bytes[at] : 0; }
    uint8_t packed(size_t at) const { return byteOf(mPacked, at); }
    uint32_t bigEndian(size_t at) const {
        uint32_t value = 0;
        for (size_t i = 0; i < 4; ++i) value = value << 8 | byteOf(mPartition, at + i);
        return value;
    }

    void takeBlocks() {
        size_t at = 4;
        for (uint32_t i = 0; i < bigEndian(0); ++i) {
            const uint32_t address = bigEndian(at), length = bigEndian(at + 4);
            if (address == 0 || length == 0) break;
            mBlocks.push_back({address, length, mPacked.size()});
            const Bytes rest = mPartition.subspan(std::min(at + 8, mPartition.size()));
            const Bytes data = rest.first(std::min<size_t>(length, rest.size()));
            mPacked.insert(mPacked.end(), data.begin(), data.end());
            at += 8 + length;
        }
    }

    void put(uint32_t address, const std::vector<uint8_t>& bytes) {
        Page* page = nullptr;
        for (const uint8_t byte : bytes) {
            if (page == nullptr || address % kPage == 0) page = &pageOf(address);
            (*page)[address++ % kPage] = byte;
        }
    }
    Page& pageOf(uint32_t address) {
        const auto [page, isNew] = mPages.try_emplace(address / kPage);
        if (isNew) page->second.fill(-1);
        return page->second;
    }
    void put(uint32_t address, const Block& block, size_t from, size_t count) {
        std::vector<uint8_t> bytes(count);
        for (size_t i = 0; i < count; ++i) bytes[i] = packed(block.packedAt + from + i);
        put(address, bytes);
    }

    void topology() {
        std::vector<int> units(20);
        for (const Block& block : mBlocks) {
            if (block.address != 0x10018000) continue;
            for (size_t i = 0; i < 20; ++i) {
                const size_t at = block.packedAt + 3 + 256 * i;
                units[i] = packed(at) + 256 * packed(at + 1);
            }
        }
        size_t k = 0;
        for (const Block& block : mBlocks) {
            if (block.address < 0x10B00000 || block.address > 0x10B4C000) continue;
            put(block.address, block, 0, 16 * static_cast<size_t>(units.at(k++)));
        }
    }

    // A frame of a fixed size. Behind a shorter block, one byte becomes 0 and the rest keeps what
    // an earlier block of this kind left.
    void frame(const char* kind, size_t size, const Block& block) {
        std::vector<uint8_t>& data = mFrames[kind];
        data.resize(size + 1);
        for (size_t i = 0; i < block.length && i < size; ++i) data[i] = packed(block.packedAt + i);
        data[block.length < size ? block.length : size] = 0;
        put(block.address, {data.begin(), data.end() - 1});
    }

    void wholeBlock(const Block& block) {
        const uint32_t address = block.address;
        if (address >= 0x10300000 && address <= 0x10313000) frame("screen table", 4096, block);
        if (address >= 0x10200000 && address <= 0x10204000) frame("receiving", 4096, block);
        if (address == 0x10018000) frame("topology header", 5120, block);
        if (address == 0x10A43000) frame("sub-pixel table", 512, block);
        if (address == 0x10810000) frame("net gap 1", 4096, block);
        if (address == 0x10820000) frame("net gap 2", 4096, block);
        if (address == 0x10400000) {
            put(0x10400000, block, 0, 2048);
            put(0x10410000, block, 0x10000, 2048);
            put(0x10420000, block, 0x20000, 2048);
        }
        if (address == 0x10000100) {
            put(0x10000103, block, 3, 2);
            put(0x1000010B, block, 11, 1);
        }
    }

    void fixedParameters() {
        put(0x00000020, {1});
        put(0x10000700, {0x05});
        put(0x10000706, {0x10});
        put(0x03000000, {0x05});
        put(0x001508A0,
            {0xb4, 0x12, 0x00, 0x00, 0x00, 0x00, 0xa9, 0xfd, 0x00, 0x00, 0xb4, 0x12, 0x00, 0x00,
             0xa9, 0xfd, 0x00, 0x00, 0x00, 0x00, 0xb4, 0x12, 0xa9, 0xfd, 0x01, 0x00, 0x00});
        put(0x10A40000,
            {0xce, 0x06, 0xe3, 0x16, 0x50, 0x02, 0x00, 0x00, 0x55, 0xfc, 0xab, 0xf3, 0x00, 0x10,
             0x00, 0x20, 0x00, 0x10, 0x78, 0xf1, 0x88, 0xfe, 0x00, 0x20, 0x00, 0x00, 0x00});
        put(0x10A40200,
            {0x00, 0x10, 0x00, 0x00, 0x32, 0x19, 0xce, 0xe6, 0x00, 0x10, 0x01, 0xfd, 0x83, 0xf8,
             0x7c, 0x0a, 0x00, 0x10, 0xb1, 0x1d, 0x00, 0x00, 0x4f, 0xe2, 0x01, 0x00, 0x00});
        for (const Block& block : mBlocks) {
            if (block.address == 0x10A43000) put(0x10A43000, block, 0, 512);
            if (block.address == 0x10000100) put(0x1000011B, block, 27, 1);
            if (block.address == 0x10200000) put(0x10200109, block, 265, 1);
        }
        put(0x10000100, {1});
    }

    void netGap() {
        for (const Block& block : mBlocks) {
            if (block.address != 0x10A45000) continue;
            put(0x10A45000, block, 0, packed(block.packedAt + 24) == 0 ? 20 : 1);
            put(0x10A45014, block, 20, 4);
            put(0x10A45031, block, 49, 108);
            put(0x10A45018, block, 24, 1);
            put(0x10A45019, block, 25, 1);
        }
        put(0x10018000, {1});
        put(0x10000100, {0});
        put(0x101FF000, {0x01, 0xff, 0xff, 0xff, 0x01, 0x00, 0x00, 0x01, 0x00, 0x02, 0x01, 0x00,
                         0x00, 0x58, 0x58});
    }

    const Bytes mPartition;
    std::vector<uint8_t> mPacked;
    std::vector<Block> mBlocks;
    std::map<std::string_view, std::vector<uint8_t>> mFrames;
    std::map<uint32_t, Page> mPages;
};

}  // namespace quil::tests
