// Partitions that no builder would write. Whatever they hold, a load ends, stays inside its buffers
// (the address sanitizer checks that) and sends only well-formed transactions.
#include <iterator>
#include <random>

#include "testing/slowed.h"
#include "tests/fpga/screen_test.h"

namespace quil::tests {

using testing::AnyOf;
using testing::IsEmpty;

namespace {

constexpr uint32_t kAddresses[] = {0x10018000, 0x10B00000, 0x10B4C000, 0x10B01000, 0x10300000,
                                   0x10313000, 0x10200000, 0x10204000, 0x10A43000, 0x10810000,
                                   0x10820000, 0x10000100, 0x10A45000, 0x20000000};
constexpr uint32_t kLengths[] = {1, 2, 16, 255, 256, 512, 513, 4096, 4097, 5120, 5121, 0x20800};

class Dice {
  public:
    explicit Dice(uint32_t seed) : mEngine(seed) {}
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(mEngine() % limit); }
    bool oneIn(uint32_t chances) { return below(chances) == 0; }
    uint32_t word() { return static_cast<uint32_t>(mEngine()); }
    template <size_t N>
    uint32_t of(const uint32_t (&values)[N]) {
        return values[below(N)];
    }

  private:
    std::mt19937 mEngine;
};

// Mostly zeros: a load may read the data as topology counts, and large ones would take long.
Bytes dataOf(Dice& dice, size_t length) {
    Bytes data(length);
    for (size_t i = dice.below(200); i < length; i += 1 + dice.below(400)) {
        data[i] = static_cast<uint8_t>(dice.oneIn(8) ? dice.word() : dice.below(4));
    }
    return data;
}

// Few gamma blocks, since each one is sent in thousands of writes.
uint32_t addressOf(Dice& dice) {
    if (dice.oneIn(60)) return 0x10400000;
    if (dice.oneIn(40)) return 0;
    if (dice.oneIn(20)) return dice.word();
    return dice.of(kAddresses);
}

void appendBlock(Dice& dice, Bytes& image) {
    const uint32_t length = dice.oneIn(4) ? dice.below(70000) : dice.of(kLengths);
    appendWord(image, addressOf(dice));
    if (dice.oneIn(25)) {
        // A wrong length: 4 GiB, 0, or a little past the image's end.
        const auto left = static_cast<uint32_t>(kImageSize - std::min(kImageSize, image.size()));
        const uint32_t lies[] = {0xFFFFFFFF, 0x80000000, 0,          left - 4,
                                 left - 3,   left + 1,   dice.word()};
        appendWord(image, dice.of(lies));
    } else {
        appendWord(image, length);
    }
    const Bytes data = dataOf(dice, length);
    image.insert(image.end(), data.begin(), data.end());
}

// A filler, so that the blocks behind it are at the image's end.
void appendFiller(Dice& dice, Bytes& image) {
    const uint32_t length = static_cast<uint32_t>(kImageSize) - 12 - dice.below(30000);
    appendWord(image, 0x20000000);
    appendWord(image, length);
    image.resize(image.size() + length);
}

Bytes hostilePartition(Dice& dice) {
    Bytes image;
    if (dice.oneIn(20)) {
        image.resize(dice.below(6000));
        for (uint8_t& byte : image) byte = static_cast<uint8_t>(dice.word());
        return image;
    }
    const uint32_t blocks = dice.oneIn(4) ? 60 : dice.below(16);
    const uint32_t lies[] = {0, 60, 61, dice.below(61), 0x80000000, dice.word()};
    appendWord(image, dice.oneIn(6) ? dice.of(lies) : blocks);
    if (dice.oneIn(40)) appendFiller(dice, image);
    for (uint32_t i = 0; i < blocks; ++i) appendBlock(dice, image);
    if (dice.oneIn(5)) image.resize(dice.below(static_cast<uint32_t>(image.size()) + 1));
    return image;
}

// Fills the exported table with rows that an earlier load or another component may have left.
void scrambleRows(Dice& dice) {
    for (st_func_offset_map_t& row : st_func_offset_map_tab) {
        row = {dice.oneIn(60) ? 0x10400000 : dice.of(kAddresses),
               dice.oneIn(3) ? dice.word() : dice.below(6000),
               dice.oneIn(3) ? dice.word() : static_cast<uint32_t>(kImageSize) - dice.below(9000)};
    }
}

}  // namespace

class HostilePartition : public FpgaScreen {
  protected:
    void runSeeds(uint32_t first, uint32_t count) {
        board.trace().setRecording(false);
        for (uint32_t seed = first; seed < first + count; ++seed) {
            Dice dice(seed);
            if (dice.oneIn(4)) scrambleRows(dice);
            putPartition(hostilePartition(dice));
            ASSERT_THAT(fpgaLoadScreenParamsBySpi(), AnyOf(0, -1)) << "seed " << seed;
            board.trace().clear();
            ASSERT_THAT(board.violations(), IsEmpty()) << "seed " << seed;
        }
    }
};

// A few thousand seeds, in parts, so that processes can share them.
class HostilePart : public HostilePartition, public testing::WithParamInterface<uint32_t> {};

TEST_P(HostilePart, OfFiveHundredSeedsHarmsNothing) { runSeeds(GetParam() * 500, 500); }

INSTANTIATE_TEST_SUITE_P(Short, HostilePart, testing::Range(0U, kEmulated ? 1U : 4U));

// 100,000 seeds in ten slices, which take half an hour; run them with
// --gtest_also_run_disabled_tests --gtest_filter='*HostileSlice*'
class HostileSlice : public HostilePartition, public testing::WithParamInterface<uint32_t> {};

TEST_P(HostileSlice, DISABLED_OfTenThousandSeedsHarmsNothing) {
    runSeeds(GetParam() * 10'000, 10'000);
}

INSTANTIATE_TEST_SUITE_P(Long, HostileSlice, testing::Range(0U, 10U));

TEST_F(HostilePartition, WhoseTopologyCountIsAbsurdEndsWithThePackedData) {
    board.trace().setRecording(false);
    Bytes header(5120, 0xFF);
    EXPECT_EQ(load({{0x10018000, header}, {0x10B00000, Bytes(16)}}), 0);
    EXPECT_EQ(free_routing_topology[0], 0xFFFF);
    EXPECT_EQ(board.fpga().transactions().size(), 65535U + 1U + 7U + 1U + 7U);
}

TEST_F(HostilePartition, WithRowsOfGarbageIsSafeForTheExportedSenders) {
    board.trace().setRecording(false);
    const Bytes packed(kImageSize, 1);
    for (uint32_t seed = 0; seed < 200; ++seed) {
        Dice dice(seed);
        scrambleRows(dice);
        sendFixedParameter(static_cast<int>(dice.word()), packed.data());
        sendNetGapeEnable(static_cast<int>(dice.word()), packed.data());
        sendTopologyPara(packed.data(), dice.oneIn(2) ? dice.word() : 0x1FFF00,
                         dice.word() | 0x10000000, static_cast<int>(dice.word()));
        board.trace().clear();
    }
    SUCCEED();
}

}  // namespace quil::tests
