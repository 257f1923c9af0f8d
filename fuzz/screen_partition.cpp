// The partition of screen parameters. Input: a byte of mode, then either the partition itself or a
// recipe: by how much the header's count is wrong, then each block's kind, length (16 bits) and
// seed.
#include <iterator>
#include <numeric>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/powered_board.h"
#include "fuzz/targets.h"
#include "testing/bytes.h"
#include "testing/screen_reading.h"
#include "tools/quilctl/files/screen_file.h"

namespace quil::fuzz {
namespace {

using tools::Bytes;
using tools::ScreenFile;

constexpr char kScreen[] = "/dev/block/by-name/screen";
constexpr uint8_t kIsRecipe = 1, kHasFormerRows = 2;
constexpr uint32_t kAddresses[] = {
    0x10018000, 0x10B00000, 0x10B4C000, 0x10B01000, 0x10300000, 0x10313000, 0x10200000, 0x10204000,
    0x10A43000, 0x10810000, 0x10820000, 0x10400000, 0x10000100, 0x10A45000, 0x20000000, 0};
constexpr size_t kFixedTransfers = 7 + 1 + 7, kTransfersMost = 4000;
constexpr size_t kTopologiesMost = 20, kFarFromTheEnd = 0x1C0000;
constexpr uint16_t kLengthsMost = 0x1800, kLongLengthFrom = 0xFF00;

// Mostly zeros: a load may read the data as counts, and large ones would take long.
void appendData(Bytes& bytes, size_t length, uint8_t seed) {
    const size_t start = bytes.size(), step = size_t{seed} + 2;
    bytes.resize(start + length);
    if (step <= 3) return;
    for (size_t i = 3; i < length; i += step) bytes[start + i] = seed & 3;
}

// Up to a little more than any kind of block needs, or, seldom, many times that: copying takes most
// of the time.
uint16_t lengthOf(uint16_t drawn) {
    return drawn < kLongLengthFrom ? static_cast<uint16_t>(drawn % kLengthsMost) : drawn;
}

// Written where the one before was: blocks of memory that grow are mapped anew for each input. What
// is returned ends where the partition ends.
Bytes partitionOf(Input recipe) {
    static Bytes partition;
    partition.assign(4, 0);
    const auto deviation = static_cast<int8_t>(recipe.byte());
    uint32_t count = 0;
    while (!recipe.empty() && count < 64) {
        const uint8_t kind = recipe.byte();
        const uint16_t length = lengthOf(recipe.word());
        tests::appendWord(partition, kAddresses[kind % std::size(kAddresses)]);
        tests::appendWord(partition, kind >= 0xF0 ? UINT32_MAX - length : length);
        appendData(partition, length, recipe.byte());
        ++count;
    }
    Bytes header;
    tests::appendWord(header, count + static_cast<uint32_t>(deviation));
    std::copy(header.begin(), header.end(), partition.begin());
    return {partition.begin(), partition.end()};
}

size_t transfersOf(const ScreenFile& file) {
    size_t count = kFixedTransfers;
    for (const auto& block : file.blocks) {
        for (const auto& frames : block.frames) count += frames.count;
    }
    return count;
}

// Whether each block is as long as a load assumes.
bool isComplete(const ScreenFile& file) {
    if (file.damage || file.size > kFarFromTheEnd) return false;
    size_t topologies = 0;
    for (const auto& block : file.blocks) {
        if (block.remark.rfind("needs", 0) == 0) return false;
        if (block.kind == "routing topology") ++topologies;
    }
    return topologies <= kTopologiesMost;
}

void checkFileRoundTrip(const Bytes& partition, const ScreenFile& file) {
    check(file.size <= partition.size(), "takes more than there is");
    if (file.damage) return;
    std::vector<tools::ScreenFilePart> parts;
    for (const auto& block : file.blocks) {
        parts.push_back({block.address, {block.data.begin(), block.data.end()}});
    }
    const Bytes built = tools::buildScreenFile(parts);
    check(std::equal(built.begin(), built.end(), partition.begin()), "built again it is another");
    check(built.size() == file.size, "built again it has another size");
}

// Fills the exported table with rows that an earlier load or another component may have left.
void leaveRows(uint8_t seed) {
    for (size_t i = 0; i < std::size(st_func_offset_map_tab); ++i) {
        const auto n = static_cast<uint32_t>(i * 37 + seed);
        st_func_offset_map_tab[i] = {kAddresses[n % std::size(kAddresses)], n * 91, n * 0x01010101};
    }
}

void startNetwork() {
    for (const auto& [at, value] : {std::pair{23, 3}, {25, 1}, {33, 9}, {42, 9}, {47, 9}}) {
        buffer[at] = static_cast<uint8_t>(value);
    }
}

void checkLoad(const Bytes& partition, const ScreenFile& file, uint8_t mode) {
    PoweredBoard board;
    board->trace().setRecording(false);
    board->runFor(std::chrono::seconds(1));
    check(board->fpga().isConfigured(), "the FPGA does not come up");
    board->writeFile(kScreen, {reinterpret_cast<const char*>(partition.data()), partition.size()});
    if ((mode & kHasFormerRows) != 0) leaveRows(mode);
    startNetwork();

    const int result = fpgaLoadScreenParamsBySpi();
    const bool hasBlocks = file.count >= 1 && file.count <= tools::kScreenBlocksMax;
    check(result == (hasBlocks && !partition.empty() ? 0 : -1), "another result");
    check(board->violations().empty(), "a transfer that the FPGA refuses");
    if (result != 0 || !isComplete(file)) return;
    const size_t transfers = board->fpga().transactions().size();
    check(transfers == transfersOf(file), "more or fewer transfers than quilctl says");
    check(board->fpga().memory() == tests::ScreenReading(partition).memory(),
          "the FPGA holds something else");
}

}  // namespace

void screenPartition(std::span<const uint8_t> bytes) {
    Input input(bytes);
    const uint8_t mode = input.byte();
    const auto rest = input.rest();
    const Bytes partition =
        (mode & kIsRecipe) != 0 ? partitionOf(Input(rest)) : Bytes(rest.begin(), rest.end());
    const ScreenFile file = tools::readScreenFile(partition);
    checkFileRoundTrip(partition, file);
    if (transfersOf(file) <= kTransfersMost) checkLoad(partition, file, mode);
}

}  // namespace quil::fuzz
