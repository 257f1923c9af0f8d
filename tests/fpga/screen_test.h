// What the tests of the screen's parameters share: partitions made block by block, and loads of
// them.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/fpga/fpga_test.h"

namespace quil::tests {

inline constexpr char kScreen[] = "/dev/block/by-name/screen";
inline constexpr size_t kImageSize = 0x200000;

struct Block {
    uint32_t address;
    Bytes data;
};

inline void appendWord(Bytes& bytes, uint32_t value) {
    for (const int shift : {24, 16, 8, 0}) bytes.push_back(static_cast<uint8_t>(value >> shift));
}

// A partition as its builder writes it; `count` where the header lies about its blocks.
inline Bytes partitionOf(const std::vector<Block>& blocks, int64_t count = -1) {
    Bytes bytes;
    appendWord(bytes, static_cast<uint32_t>(count >= 0 ? count : blocks.size()));
    for (const Block& block : blocks) {
        appendWord(bytes, block.address);
        appendWord(bytes, static_cast<uint32_t>(block.data.size()));
        bytes.insert(bytes.end(), block.data.begin(), block.data.end());
    }
    return bytes;
}

class FpgaScreen : public FpgaTest {
  protected:
    FpgaScreen() {
        std::filesystem::create_directories(board.hostPath("/dev/block/by-name"));
        networkIsUp();
        startFresh("E");
    }

    static void networkIsUp() {
        for (const auto& [at, value] : {std::pair{23, 3}, {25, 1}, {33, 9}, {42, 9}, {47, 9}}) {
            buffer[at] = static_cast<uint8_t>(value);
        }
    }

    void putPartition(const Bytes& bytes) {
        board.writeFile(kScreen, {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    }
    int load(const std::vector<Block>& blocks, int64_t count = -1) {
        putPartition(partitionOf(blocks, count));
        board.trace().clear();
        board.clearLog();
        return fpgaLoadScreenParamsBySpi();
    }

    // The frames of a load up to the first fixed one, and from that on.
    std::vector<Bytes> blockFrames() {
        auto frames = writes();
        frames.erase(firstFixed(frames), frames.end());
        return frames;
    }
    std::vector<Bytes> fixedFrames() {
        auto frames = writes();
        frames.erase(frames.begin(), firstFixed(frames));
        return frames;
    }

    bool logged(const std::string& line) {
        const auto lines = messages();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }

  private:
    static std::vector<Bytes>::iterator firstFixed(std::vector<Bytes>& frames) {
        return std::find(frames.begin(), frames.end(), bytesOf("02 00 00 00 20 01 00"));
    }
};

// The part of a block's data that stands from `from` on, zeros behind its end.
inline Bytes partOf(const Bytes& data, size_t from, size_t count) {
    Bytes part(count);
    for (size_t i = 0; i < count && from + i < data.size(); ++i) part[i] = data[from + i];
    return part;
}

}  // namespace quil::tests
