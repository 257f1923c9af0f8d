// Shared by the tests of the screen's parameters: partitions built block by block, and loads of
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

// A partition as its builder writes it. `count` is the header's number of blocks, if it is wrong.
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

    void putPartition(const Bytes& bytes) { board.writeFile(kScreen, textOf(bytes)); }
    int load(const std::vector<Block>& blocks, int64_t count = -1) {
        putPartition(partitionOf(blocks, count));
        board.trace().clear();
        board.clearLog();
        return fpgaLoadScreenParamsBySpi();
    }

    // The frames of a load before its fixed ones, and those from the first fixed one on.
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

// `count` bytes of a block's data from `from` on; zeros past its end.
inline Bytes partOf(const Bytes& data, size_t from, size_t count) {
    Bytes part(count);
    for (size_t i = 0; i < count && from + i < data.size(); ++i) part[i] = data[from + i];
    return part;
}

}  // namespace quil::tests
