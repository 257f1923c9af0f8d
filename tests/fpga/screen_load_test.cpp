// A load of the screen's parameters: the writes for each kind of block, their order, and the log.
#include <errno.h>
#include <quil_hal.h>

#include <iterator>
#include <random>
#include <thread>

#include "testing/screen_reading.h"
#include "tests/fpga/screen_test.h"

namespace quil::tests {

using board::Call;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// A topology header with these counts for the first topology blocks.
Bytes headerWith(const std::vector<uint16_t>& counts) {
    Bytes data(5120, 0xEE);
    for (size_t k = 0; k < 20; ++k) {
        const uint16_t count = k < counts.size() ? counts[k] : uint16_t{0};
        data[3 + 256 * k] = static_cast<uint8_t>(count & 0xFF);
        data[4 + 256 * k] = static_cast<uint8_t>(count >> 8);
    }
    return data;
}

}  // namespace

class ScreenLoad : public FpgaScreen {};

// Failures that end a load.

TEST_F(ScreenLoad, WithoutMemoryForEitherBufferFails) {
    for (const int after : {0, 1}) {
        board.clearLog();
        board.faults().add({.call = Call::kMalloc, .after = after});
        EXPECT_EQ(fpgaLoadScreenParamsBySpi(), -1);
        EXPECT_THAT(messages(),
                    ElementsAre("E fpgaLoadScreenParamsBySpi: could not allocate memory "
                                "for the cach || cachPureData!\n"));
        board.faults().clear();
    }
    EXPECT_THAT(timeline(), IsEmpty());
}

TEST_F(ScreenLoad, OfAMissingPartitionFails) {
    std::filesystem::remove(board.hostPath(kScreen));
    EXPECT_EQ(fpgaLoadScreenParamsBySpi(), -1);
    EXPECT_THAT(messages(),
                ElementsAre("E read_screen_paramter: open /dev/block/by-name/screen failed !!!\n",
                            "E fpgaLoadScreenParamsBySpi: failed to read screen paramter\n"));
    EXPECT_THAT(timeline(), IsEmpty());
}

TEST_F(ScreenLoad, OfAPartitionThatCannotBeReadFailsAndClosesIt) {
    putPartition(partitionOf({{0x10300000, {1}}}));
    board.faults().add({.call = Call::kRead, .path = kScreen, .error = EIO});
    EXPECT_EQ(fpgaLoadScreenParamsBySpi(), -1);
    const auto lines = messages();
    ASSERT_EQ(lines.size(), 2U);
    const std::string fd = lines[0].substr(32, lines[0].find(')') - 32);
    EXPECT_EQ(lines[0], "E read_screen_paramter: read fd(" + fd + ") error(Input/output error)\n");
    EXPECT_EQ(lines[1], "E fpgaLoadScreenParamsBySpi: failed to read screen paramter\n");
    EXPECT_EQ(board.trace().events(board::EventKind::kClose).size(), 1U);
}

TEST_F(ScreenLoad, OfACountOf0Or61Fails) {
    for (const int64_t count : {0, 61}) {
        EXPECT_EQ(load({{0x10300000, {1}}}, count), -1);
        EXPECT_EQ(messages().back(),
                  "E fpgaLoadScreenParamsBySpi: parse_emmc_block, blockNum = 0\n");
        EXPECT_THAT(timeline(), IsEmpty());
    }
}

TEST_F(ScreenLoad, OfAnEmptyPartitionFails) {
    putPartition({});
    EXPECT_EQ(fpgaLoadScreenParamsBySpi(), -1);
    EXPECT_THAT(messages(),
                ElementsAre("E fpgaLoadScreenParamsBySpi: parse_emmc_block, blockNum = 0\n"));
}

TEST_F(ScreenLoad, ReadsThePartitionOnceUpTo2MiBAndSaysHowMuch) {
    startFresh("D");
    // Fails a second read of the partition, if there is one.
    board.faults().add({.call = Call::kRead, .path = kScreen, .error = EIO, .after = 2});
    Bytes bytes = partitionOf({{0x10300000, {1}}});
    bytes.resize(kImageSize + 100);
    putPartition(bytes);
    EXPECT_EQ(fpgaLoadScreenParamsBySpi(), 0);
    EXPECT_EQ(messages()[0], "D fpgaLoadScreenParamsBySpi: read screen data size 2097152\n");
    putPartition(partitionOf({{0x10300000, {1}}}));
    board.clearLog();
    EXPECT_EQ(fpgaLoadScreenParamsBySpi(), 0);
    EXPECT_EQ(messages()[0], "D fpgaLoadScreenParamsBySpi: read screen data size 13\n");
}

TEST_F(ScreenLoad, TransfersThatFailDoNotStopIt) {
    board.faults().add({.call = Call::kOpen, .path = kSpiDevice, .error = ENOENT, .times = -1});
    EXPECT_EQ(load({{0x10300000, {1}}, {0x10A45000, {2}}}), 0);
    const auto lines = messages();
    EXPECT_EQ(
        std::count(lines.begin(), lines.end(), "E spi_send_data: open /dev/fpga_spi failed !!!\n"),
        1 + 7 + 1 + 6 + 7);
}

// Kinds that are sent in one frame of a fixed size.

struct Whole {
    const char* name;
    uint32_t address;
    const char* head;
    size_t size;
};
void PrintTo(const Whole& row, std::ostream* out) { *out << row.name; }
std::string wholeName(const testing::TestParamInfo<Whole>& info) { return info.param.name; }

class WholeBlock : public ScreenLoad, public testing::WithParamInterface<Whole> {
  protected:
    size_t dataSize() const { return GetParam().size - 6; }
    // The block's first frame; some kinds send more.
    Bytes frameOf(const Bytes& data) {
        load({{GetParam().address, data}});
        return blockFrames().at(0);
    }
};

TEST_P(WholeBlock, OfItsFullLengthIsOneFrame) {
    const Bytes data = pattern(dataSize(), 1);
    EXPECT_EQ(load({{GetParam().address, data}}), 0);
    EXPECT_THAT(blockFrames(), ElementsAre(transfer(GetParam().head, data)));
}

TEST_P(WholeBlock, ThatIsLongerIsCutToItsFrame) {
    const Bytes data = pattern(dataSize() + 300, 1);
    EXPECT_EQ(frameOf(data), transfer(GetParam().head, partOf(data, 0, dataSize())));
}

TEST_P(WholeBlock, ThatIsShorterIsFilledUpWithZeros) {
    const Bytes data = pattern(10, 1);
    EXPECT_EQ(frameOf(data), transfer(GetParam().head, partOf(data, 0, dataSize())));
}

TEST_P(WholeBlock, ThatIsShorterThanTheOneBeforeItLeavesThatOnesRestBehindAZero) {
    const Bytes before = pattern(dataSize(), 1), data = pattern(10, 2);
    load({{GetParam().address, before}, {GetParam().address, data}});
    Bytes mixed = before;
    std::copy(data.begin(), data.end(), mixed.begin());
    mixed[10] = 0;
    EXPECT_THAT(blockFrames(),
                ElementsAre(transfer(GetParam().head, before), transfer(GetParam().head, mixed)));
}

TEST_P(WholeBlock, DoesNotSeeTheFrameOfAnEarlierLoad) {
    frameOf(pattern(dataSize(), 1));
    const Bytes data = pattern(10, 2);
    EXPECT_EQ(frameOf(data), transfer(GetParam().head, partOf(data, 0, dataSize())));
}

INSTANTIATE_TEST_SUITE_P(
    Each, WholeBlock,
    testing::Values(Whole{"FirstScreenTable", 0x10300000, "02 10 30 00 00", 4102},
                    Whole{"LastScreenTable", 0x10313000, "02 10 31 30 00", 4102},
                    Whole{"FirstReceiving", 0x10200000, "02 10 20 00 00", 4102},
                    Whole{"LastReceiving", 0x10204000, "02 10 20 40 00", 4102},
                    Whole{"TopologyHeader", 0x10018000, "02 10 01 80 00", 5126},
                    Whole{"SubPixelTable", 0x10A43000, "02 10 a4 30 00", 518},
                    Whole{"NetGapTable1", 0x10810000, "02 10 81 00 00", 4102},
                    Whole{"NetGapTable2", 0x10820000, "02 10 82 00 00", 4102}),
    wholeName);

TEST_F(ScreenLoad, KindsHaveFramesOfTheirOwn) {
    const Bytes full = pattern(4096, 1), brief = pattern(10, 2);
    load({{0x10300000, full}, {0x10200000, brief}, {0x10810000, full}, {0x10820000, brief}});
    EXPECT_THAT(blockFrames(), ElementsAre(transfer("02 10 30 00 00", full),
                                           transfer("02 10 20 00 00", partOf(brief, 0, 4096)),
                                           transfer("02 10 81 00 00", full),
                                           transfer("02 10 82 00 00", partOf(brief, 0, 4096))));
}

TEST_F(ScreenLoad, BlocksOfOneRangeShareAFrame) {
    const Bytes full = pattern(4096, 1), brief = pattern(10, 2);
    load({{0x10300000, full}, {0x10301000, brief}});
    Bytes mixed = full;
    std::copy(brief.begin(), brief.end(), mixed.begin());
    mixed[10] = 0;
    EXPECT_EQ(blockFrames().back(), transfer("02 10 30 10 00", mixed));
}

TEST_F(ScreenLoad, AddressesBetweenTheKindsSendNothing) {
    std::vector<Block> blocks;
    for (const uint32_t address :
         {0x102FFFFFU, 0x10313001U, 0x101FFFFFU, 0x10204001U, 0x10018001U, 0x10A43001U, 0x10810001U,
          0x10820001U, 0x10400001U, 0x10000101U, 0x10AFFFFFU, 0x10B4C001U, 0x10A45001U, 1U}) {
        blocks.push_back({address, pattern(64, 1)});
    }
    EXPECT_EQ(load(blocks), 0);
    EXPECT_THAT(blockFrames(), IsEmpty());
    EXPECT_EQ(fixedFrames().size(), 7U + 1U + 7U);
}

TEST_F(ScreenLoad, BlocksAreSentInTheOrderOfThePartition) {
    const Bytes data = pattern(4096, 1);
    load({{0x10820000, data}, {0x10300000, data}, {0x10810000, data}});
    const auto frames = blockFrames();
    ASSERT_EQ(frames.size(), 3U);
    EXPECT_EQ(hexOf(partOf(frames[0], 0, 5)), "02 10 82 00 00");
    EXPECT_EQ(hexOf(partOf(frames[1], 0, 5)), "02 10 30 00 00");
    EXPECT_EQ(hexOf(partOf(frames[2], 0, 5)), "02 10 81 00 00");
}

TEST_F(ScreenLoad, NetGapAndGammaBlocksAreAnnouncedAtDebugLevel) {
    setLogLevel("D");
    load({{0x10810000, {1}}, {0x10820000, {1}}, {0x10400000, {1}}});
    std::vector<std::string> kept;
    for (const std::string& line : messages()) {
        if (line.find("_paramter 0x") != std::string::npos) kept.push_back(line);
    }
    EXPECT_THAT(kept, ElementsAre("D send_netgape_paramter 0x10810000 \n",
                                  "D send_netgape_paramter 0x10820000 \n",
                                  "D send_gamma_paramter 0x10400000 \n"));
}

TEST_F(ScreenLoad, RowsThatThisLoadDidNotFillAreWalkedAllTheSame) {
    const Bytes data = pattern(4096, 1);
    load({{0x10300000, {1}}, {0x10301000, data}});
    load({{0x10810000, data}, {0, {}}}, 2);
    EXPECT_THAT(blockFrames(), ElementsAre(transfer("02 10 81 00 00", data),
                                           // An earlier row's offset, this load's data.
                                           transfer("02 10 30 10 00", partOf(data, 1, 4096))));
}

TEST_F(ScreenLoad, RowsThatPointPastThePackedDataSendZeros) {
    st_func_offset_map_tab[1] = {0x10300000, 4096, 0xFFFFFFFF};
    st_func_offset_map_tab[2] = {0x10400000, 1, 0x200000 - 4};
    st_func_offset_map_tab[3] = {0x10000100, 1, 0x200000 - 4};
    load({{0x10810000, pattern(4096, 1)}, {0, {}}}, 4);
    const Bytes zeros(4096), gamma(2048);
    EXPECT_THAT(Bytes(fixedFrames()[0]), bytesOf("02 00 00 00 20 01 00"));
    const auto frames = blockFrames();
    ASSERT_EQ(frames.size(), 1U + 1U + 3U + 2U);
    EXPECT_EQ(frames[1], transfer("02 10 30 00 00", zeros));
    EXPECT_EQ(frames[2], transfer("02 10 40 00 00", gamma));
    EXPECT_EQ(frames[4], transfer("02 10 42 00 00", gamma));
    EXPECT_EQ(hexOf(frames[5]), "02 10 00 01 03 00 00 00");
    EXPECT_EQ(hexOf(frames[6]), "02 10 00 01 0b 00 00");
}

TEST_F(ScreenLoad, RowOfLength0HasItsZeroRightBehindTheAddress) {
    const Bytes data = pattern(4096, 1);
    st_func_offset_map_tab[1] = {0x10300000, 0, 0};
    load({{0x10300000, data}, {0, {}}}, 2);
    Bytes mixed = data;
    mixed[0] = 0;
    EXPECT_EQ(blockFrames().back(), transfer("02 10 30 00 00", mixed));
}

// A random well-formed partition: any kinds and lengths in any order.
std::vector<Block> anyBlocks(std::mt19937& engine) {
    constexpr uint32_t kKinds[] = {0x10018000, 0x10B00000, 0x10B4C000, 0x10300000, 0x10313000,
                                   0x10200000, 0x10204000, 0x10A43000, 0x10810000, 0x10820000,
                                   0x10400000, 0x10000100, 0x10A45000, 0x10A45001};
    constexpr size_t kLengths[] = {1, 16, 157, 256, 512, 600, 4096, 5120, 5200};
    std::vector<Block> blocks;
    for (size_t left = 1 + engine() % 18; left > 0; --left) {
        const uint32_t address = kKinds[engine() % std::size(kKinds)];
        Bytes data =
            pattern(kLengths[engine() % std::size(kLengths)], static_cast<uint8_t>(engine()));
        if (address == 0x10018000) data = headerWith({3, 0, 2, 1});
        if (address == 0x10A45000 && data.size() > 24 && engine() % 2 == 0) data[24] = 0;
        blocks.push_back({address, data});
    }
    return blocks;
}

TEST_F(ScreenLoad, OfAnyWellFormedPartitionLeavesTheMemoryThatAnotherReadingOfItFinds) {
    std::mt19937 engine(5);
    for (int i = 0; i < 60; ++i) {
        SCOPED_TRACE(i);
        hal_gpio_setvalue(441, 0);  // a restart empties the memory
        hal_gpio_setvalue(441, 1);
        board.runFor(std::chrono::seconds(1));
        const auto blocks = anyBlocks(engine);
        ASSERT_EQ(load(blocks), 0);
        ASSERT_TRUE(board.fpga().memory() == ScreenReading(partitionOf(blocks)).memory());
    }
}

// Gamma and control.

TEST_F(ScreenLoad, GammaIsExactlyThreeFramesWith100MillisecondsBehindEach) {
    const Bytes data = pattern(0x20000 + 2048, 1);
    EXPECT_EQ(load({{0x10400000, data}}), 0);
    EXPECT_THAT(blockFrames(),
                ElementsAre(transfer("02 10 40 00 00", partOf(data, 0, 2048)),
                            transfer("02 10 41 00 00", partOf(data, 0x10000, 2048)),
                            transfer("02 10 42 00 00", partOf(data, 0x20000, 2048))));
    const auto pauses = sleeps();
    EXPECT_THAT(std::vector<std::string>(pauses.begin(), pauses.begin() + 6),
                ElementsAre("0.010000 s", "0.100000 s", "0.010000 s", "0.100000 s", "0.010000 s",
                            "0.100000 s"));
}

TEST_F(ScreenLoad, GammaTakesWhatStandsAtItsOffsetsOfThePackedData) {
    const Bytes data = pattern(100, 1), next = pattern(0x10000, 2);
    load({{0x10400000, data}, {0x20000000, next}});
    const auto frames = blockFrames();
    ASSERT_EQ(frames.size(), 3U);
    Bytes first = data;
    first.insert(first.end(), next.begin(), next.begin() + 2048 - 100);
    EXPECT_EQ(frames[0], transfer("02 10 40 00 00", first));
    EXPECT_EQ(frames[1], transfer("02 10 41 00 00", partOf(next, 0x10000 - 100, 2048)));
    EXPECT_EQ(frames[2], transfer("02 10 42 00 00", Bytes(2048)));
}

TEST_F(ScreenLoad, GammaLogsTheBytesOfItsFramesAtInformationLevel) {
    setLogLevel("I");
    const Bytes data = pattern(0x20000 + 2048, 1);
    load({{0x10400000, data}});
    std::vector<std::string> expected;
    for (const Bytes& frame : blockFrames()) {
        for (size_t i = 0; i < 2054; ++i) {
            char text[64];
            snprintf(text, sizeof(text), "I send_buff_gamma[%zu] = 0x%x\n", i, frame[i]);
            expected.push_back(text);
        }
    }
    const auto lines = messages();
    ASSERT_GE(lines.size(), expected.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), lines.begin()));
    EXPECT_EQ(lines[0], "I send_buff_gamma[0] = 0x2\n");
    EXPECT_EQ(lines[2 * 2054 + 2], "I send_buff_gamma[2] = 0x42\n");
}

TEST_F(ScreenLoad, ControlSendsItsBytes3And4And11) {
    EXPECT_EQ(load({{0x10000100, {0, 1, 2, 0x33, 0x44, 5, 6, 7, 8, 9, 10, 0xBB, 12}}}), 0);
    EXPECT_THAT(blockFrames(),
                ElementsAre(bytesOf("02 10 00 01 03 33 44 00"), bytesOf("02 10 00 01 0b bb 00")));
}

// Topologies.

class ScreenTopology : public ScreenLoad {
  protected:
    std::vector<std::string> topologyMessages() {
        std::vector<std::string> kept;
        for (const std::string& line : messages()) {
            if (line.find("opology") != std::string::npos) kept.push_back(line);
        }
        return kept;
    }
};

TEST_F(ScreenTopology, CountsAreLittleEndianWordsEvery256BytesFromByte3On) {
    setLogLevel("D");
    std::vector<uint16_t> counts;
    for (size_t k = 0; k < 20; ++k) counts.push_back(static_cast<uint16_t>(0xF001 + k * 0x101));
    load({{0x10300000, {1, 2, 3}}, {0x10018000, headerWith(counts)}});
    std::vector<std::string> expected = {"D get_free_routing_topology : 0x3 \n"};
    for (size_t k = 0; k < 20; ++k) {
        EXPECT_EQ(free_routing_topology[k], counts[k]);
        expected.push_back("D free_routing_topology[" + std::to_string(k) +
                           "] = " + std::to_string(counts[k]) + "\n");
    }
    EXPECT_EQ(topologyMessages(), expected);
}

TEST_F(ScreenTopology, LastHeaderWins) {
    load({{0x10018000, headerWith({3})}, {0x10018000, headerWith({1})}, {0x10B00000, Bytes(64)}});
    EXPECT_EQ(free_routing_topology[0], 1);
}

TEST_F(ScreenTopology, HeaderThatIsCutShortGivesWhatStandsBehindIt) {
    load({{0x10018000, Bytes(4, 0x11)}, {0x20000000, Bytes(1, 0x22)}});
    EXPECT_EQ(free_routing_topology[0], 0x2211);
    EXPECT_EQ(free_routing_topology[1], 0);
}

TEST_F(ScreenTopology, WithoutAHeaderAllCountsAre0) {
    std::fill(std::begin(free_routing_topology), std::end(free_routing_topology), 7);
    load({{0x10B00000, Bytes(64)}});
    EXPECT_THAT(free_routing_topology, testing::Each(0));
    EXPECT_THAT(blockFrames(), IsEmpty());
}

TEST_F(ScreenTopology, EachBlockSendsAsManyUnitsAsItsCountBeforeAnythingElse) {
    const Bytes header = headerWith({2, 1}), first = pattern(32, 1), second = pattern(16, 2);
    load({{0x10300000, pattern(4096, 5)},
          {0x10018000, header},
          {0x10B00000, first},
          {0x10B4C000, second}});
    EXPECT_THAT(blockFrames(), ElementsAre(transfer("02 10 b0 00 00", partOf(first, 0, 16)),
                                           transfer("02 10 b0 00 10", partOf(first, 16, 16)),
                                           transfer("02 10 b4 c0 00", second),
                                           transfer("02 10 30 00 00", pattern(4096, 5)),
                                           transfer("02 10 01 80 00", header)));
}

TEST_F(ScreenTopology, CountOf0SendsNothingButTakesItsTurn) {
    setLogLevel("D");
    const Bytes data = pattern(16, 1);
    load({{0x10018000, headerWith({0, 1})}, {0x10B00000, data}, {0x10B01000, data}});
    EXPECT_EQ(blockFrames()[0], transfer("02 10 b0 10 00", data));
    const auto lines = topologyMessages();
    EXPECT_THAT(
        std::vector<std::string>(lines.end() - 2, lines.end()),
        ElementsAre("D send_topology_paramter send successful free_routing_topology[0] \n",
                    "D send_topology_paramter send successful free_routing_topology[1] \n"));
}

TEST_F(ScreenTopology, BlocksBeyondTheTwentiethSendNothing) {
    std::vector<Block> blocks = {{0x10018000, headerWith(std::vector<uint16_t>(20, 1))}};
    for (uint32_t k = 0; k < 25; ++k) blocks.push_back({0x10B00000 + k * 0x100, pattern(16, 1)});
    setLogLevel("D");
    EXPECT_EQ(load(blocks), 0);
    EXPECT_EQ(blockFrames().size(), 20U + 1U);
    EXPECT_TRUE(logged("D send_topology_paramter send successful free_routing_topology[24] \n"));
}

TEST_F(ScreenTopology, CountBeyondTheBlockTakesWhatStandsBehindItAndNothingPastTheBuffer) {
    const Bytes header = headerWith({0xFFFF}), data = pattern(16, 1);
    std::vector<Block> blocks = {{0x10018000, header},
                                 {0x20000000, Bytes(kImageSize - 4 - 32 - 5120 - 16 - 40)},
                                 {0x10B00000, data},
                                 {0x20000000, pattern(40, 3)}};
    EXPECT_EQ(load(blocks), 0);
    const auto frames = blockFrames();
    // From the block's offset to the end of the packed buffer: 16, 40 and 36 bytes without data.
    ASSERT_EQ(frames.size(), 6U + 1U);
    EXPECT_EQ(frames[0], transfer("02 10 b0 00 00", data));
    EXPECT_EQ(frames[1], transfer("02 10 b0 00 10", partOf(pattern(40, 3), 0, 16)));
    EXPECT_EQ(frames[3], transfer("02 10 b0 00 30", partOf(pattern(40, 3), 32, 16)));
    EXPECT_EQ(frames[5], transfer("02 10 b0 00 50", Bytes(16)));
}

TEST_F(ScreenTopology, FramesOfTheExportedSenderAdvanceBy16) {
    const Bytes data = pattern(0x200000, 1);
    sendTopologyPara(data.data(), 5, 0x10B00FF8, 2);
    EXPECT_THAT(writes(), ElementsAre(transfer("02 10 b0 0f f8", partOf(data, 5, 16)),
                                      transfer("02 10 b0 10 08", partOf(data, 21, 16))));
    EXPECT_THAT(sleeps(), ElementsAre("0.010000 s", "0.010000 s"));
}

TEST_F(ScreenTopology, NegativeOrZeroCountSendsNothing) {
    const Bytes data(0x200000);
    sendTopologyPara(data.data(), 0, 0x10B00000, -1);
    sendTopologyPara(data.data(), 0, 0x10B00000, 0);
    sendTopologyPara(data.data(), 0xFFFFFFFF, 0x10B00000, 5);
    EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(ScreenTopology, LastUnitOfTheBufferIsFilledUpWithZeros) {
    const Bytes data = pattern(0x200000, 1);
    sendTopologyPara(data.data(), 0x200000 - 4, 0x10B00000, 1000);
    EXPECT_THAT(writes(), ElementsAre(transfer("02 10 b0 00 00", partOf(data, 0x200000 - 4, 16))));
}

TEST_F(ScreenTopology, UnitThatIsCutShortHasNothingOfTheOneBeforeIt) {
    const Bytes data = pattern(0x200000, 1);
    sendTopologyPara(data.data(), 0x200000 - 20, 0x10B00000, 1000);
    EXPECT_THAT(writes(), ElementsAre(transfer("02 10 b0 00 00", partOf(data, 0x200000 - 20, 16)),
                                      transfer("02 10 b0 00 10", partOf(data, 0x200000 - 4, 16))));
    startFresh("E");
    sendTopologyPara(data.data(), 0x200000, 0x10B00000, 1);
    EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(ScreenTopology, AddressesBesideTheRangeTakeNoCount) {
    const Bytes header = headerWith({1}), data = pattern(16, 1);
    load({{0x10018000, header}, {0x10AFFFFF, data}, {0x10B4C001, data}, {0x10B4C000, data}});
    EXPECT_THAT(blockFrames(),
                ElementsAre(transfer("02 10 b4 c0 00", data), transfer("02 10 01 80 00", header)));
}

TEST_F(ScreenTopology, WithoutASourceEachFrameIs22ZerosAndAMessage) {
    sendTopologyPara(nullptr, 0, 0x10B00000, 2);
    EXPECT_THAT(messages(), ElementsAre("E dst or src is NULL\n", "E dst or src is NULL\n"));
    EXPECT_THAT(sleeps(), ElementsAre("0.010000 s", "0.010000 s"));
    // The model refuses the transaction.
    const char* const refused = "fpga: a write without the command 0x02: 00 00 00 00 00 00 00 00";
    EXPECT_THAT(board.violations(), ElementsAre(refused, refused));
    EXPECT_EQ(board.deviceTime(), 2 * 22 * board::Fpga::kSpiByte);
    expectViolations(2);
}

}  // namespace quil::tests
