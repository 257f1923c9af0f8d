// The end of a load of the screen's parameters: the fixed registers, the wait for the network side,
// and the net gap.
#include <thread>

#include "tests/fpga/screen_test.h"

namespace quil::tests {

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char kFirstParameters[] =
    "02 00 15 08 a0 b4 12 00 00 00 00 a9 fd 00 00 b4 12 00 00 a9 fd 00 00 00 00 b4 12 a9 fd 01 00 "
    "00 00";
constexpr char kSecondParameters[] =
    "02 10 a4 00 00 ce 06 e3 16 50 02 00 00 55 fc ab f3 00 10 00 20 00 10 78 f1 88 fe 00 20 00 00 "
    "00 00";
constexpr char kThirdParameters[] =
    "02 10 a4 02 00 00 10 00 00 32 19 ce e6 00 10 01 fd 83 f8 7c 0a 00 10 b1 1d 00 00 4f e2 01 00 "
    "00 00";
const std::vector<std::string> kFixed = {
    "02 00 00 00 20 01 00", "02 10 00 07 00 05 00", "02 10 00 07 06 10 00", "02 03 00 00 00 05 00",
    kFirstParameters,       kSecondParameters,      kThirdParameters};
constexpr char kControlOn[] = "02 10 00 01 00 01 00";
constexpr char kNetGap[] = "02 10 1f f0 00 01 ff ff ff 01 00 00 01 00 02 01 00 00 58 58 00";
const std::vector<std::string> kEnable = {
    "02 10 01 80 00 01 00", "02 10 00 01 00 00 00", kNetGap, kNetGap, kNetGap, kNetGap, kNetGap};
const std::vector<std::string> kEnablePauses = {"0.010000 s", "0.100000 s", "0.010000 s",
                                                "0.100000 s", "0.010000 s", "0.010000 s",
                                                "0.010000 s", "0.010000 s", "0.010000 s"};

std::vector<std::string> concat(std::vector<std::string> first,
                                const std::vector<std::string>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

}  // namespace

class ScreenFixed : public FpgaScreen {
  protected:
    // A row without a load: data at offset 0.
    void oneRow(uint32_t address) { st_func_offset_map_tab[0] = {address, 1, 0}; }
    Bytes packed = pattern(kImageSize, 1);
};

TEST_F(ScreenFixed, RegistersAreSevenTransfersInThisOrder) {
    sendFixedParameter(0, packed.data());
    EXPECT_EQ(writtenHex(), kFixed);
    EXPECT_EQ(sleeps(), std::vector<std::string>(7, "0.010000 s"));
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(ScreenFixed, WithoutBlocksTheTableIsNotWalked) {
    oneRow(0x10A43000);
    for (const int blocks : {0, -1}) {
        startFresh("E");
        sendFixedParameter(blocks, packed.data());
        EXPECT_EQ(writtenHex(), kFixed);
    }
}

TEST_F(ScreenFixed, SubPixelTableGoesOnceMoreInTwoHalves) {
    setLogLevel("D");
    oneRow(0x10A43000);
    sendFixedParameter(1, packed.data());
    EXPECT_EQ(writtenHex(),
              concat(kFixed, {hexOf(transfer("02 10 a4 30 00", partOf(packed, 0, 256))),
                              hexOf(transfer("02 10 a4 31 00", partOf(packed, 256, 256)))}));
    EXPECT_THAT(messages(), ElementsAre("D fpga_addr 10a43000 write size = 262\n",
                                        "D fpga_addr 10a43100 write size = 262\n"));
}

TEST_F(ScreenFixed, ControlSendsItsByte27) {
    setLogLevel("D");
    oneRow(0x10000100);
    packed[27] = 0xC7;
    sendFixedParameter(1, packed.data());
    EXPECT_EQ(writtenHex(), concat(kFixed, {"02 10 00 01 1b c7 00"}));
    EXPECT_THAT(messages(), ElementsAre("D fpga_addr 1000011b write size = 7\n"));
}

TEST_F(ScreenFixed, FirstReceivingBlockSendsItsByte265AndNoOtherDoes) {
    setLogLevel("D");
    oneRow(0x10200000);
    st_func_offset_map_tab[1] = {0x10201000, 4096, 0};
    packed[265] = 0xC7;
    sendFixedParameter(2, packed.data());
    EXPECT_EQ(writtenHex(), concat(kFixed, {"02 10 20 01 09 c7 00"}));
    EXPECT_THAT(messages(), ElementsAre("D fpga_addr 10200109 write size = 7\n"));
}

TEST_F(ScreenFixed, TransferThatFailsShowsItsResult) {
    setLogLevel("D");
    oneRow(0x10000100);
    board.faults().add({.call = board::Call::kOpen, .path = kSpiDevice, .error = EIO, .after = 7});
    sendFixedParameter(1, packed.data());
    EXPECT_EQ(messages().back(), "D fpga_addr 1000011b write size = -1\n");
}

TEST_F(ScreenFixed, WithoutDataEachFrameIsLoggedAndGoesWithZeros) {
    setLogLevel("D");
    oneRow(0x10A43000);
    st_func_offset_map_tab[1] = {0x10000100, 1, 0};
    sendFixedParameter(2, nullptr);
    EXPECT_EQ(writtenHex(), concat(kFixed, {hexOf(transfer("02 10 a4 30 00", Bytes(256))),
                                            hexOf(transfer("02 10 a4 31 00", Bytes(256))),
                                            "02 10 00 01 1b 00 00"}));
    EXPECT_THAT(messages(),
                ElementsAre("E dst or src is NULL\n", "D fpga_addr 10a43000 write size = 262\n",
                            "E dst or src is NULL\n", "D fpga_addr 10a43100 write size = 262\n",
                            "E dst or src is NULL\n", "D fpga_addr 1000011b write size = 7\n"));
}

TEST_F(ScreenFixed, CountAboveTheTableEndsWithTheTable) {
    for (st_func_offset_map_t& row : st_func_offset_map_tab) row = {0x10000100, 1, 0xFFFFFFFF};
    sendFixedParameter(1000, packed.data());
    EXPECT_EQ(writtenHex(), concat(kFixed, std::vector<std::string>(60, "02 10 00 01 1b 00 00")));
}

// The net gap.

class ScreenNetGap : public ScreenFixed {
  protected:
    std::vector<std::string> pausesOf(int blocks) {
        startFresh("E");
        sendNetGapeEnable(blocks, packed.data());
        return sleeps();
    }
    static std::vector<std::string> bytesLogged(const std::string& label,
                                                const std::string& frame) {
        std::vector<std::string> lines;
        const Bytes bytes = bytesOf(frame);
        for (size_t i = 0; i < bytes.size(); ++i) {
            char text[80];
            snprintf(text, sizeof(text), "I %s[%zu] = 0x%x\n", label.c_str(), i, bytes[i]);
            lines.push_back(text);
        }
        return lines;
    }
};

TEST_F(ScreenNetGap, StartsAfter3SecondsAndEndsWithFiveCopies) {
    EXPECT_EQ(pausesOf(0), concat({"3.000000 s"}, kEnablePauses));
    EXPECT_EQ(writtenHex(), kEnable);
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(ScreenNetGap, BlockWhoseEnableIs0GoesWithAllParametersAndItsFilterTwice) {
    packed[24] = 0;
    oneRow(0x10A45000);
    const std::string filter = hexOf(transfer("02 10 a4 50 31", partOf(packed, 49, 108)));
    const auto pauses = pausesOf(1);
    EXPECT_EQ(writtenHex(), concat({hexOf(transfer("02 10 a4 50 00", partOf(packed, 0, 20))),
                                    hexOf(transfer("02 10 a4 50 14", partOf(packed, 20, 4))),
                                    filter, "02 10 a4 50 18 00 00",
                                    hexOf(transfer("02 10 a4 50 19", {packed[25]})), filter},
                                   kEnable));
    EXPECT_EQ(pauses, concat({"3.000000 s", "0.010000 s", "0.010000 s", "0.010000 s", "0.010000 s",
                              "0.010000 s", "0.100000 s", "0.010000 s"},
                             kEnablePauses));
}

TEST_F(ScreenNetGap, BlockWhoseEnableIsSetGoesWithOneParameterAndItsFilterOnce) {
    packed[24] = 5;
    oneRow(0x10A45000);
    const auto pauses = pausesOf(1);
    EXPECT_EQ(writtenHex(),
              concat({hexOf(transfer("02 10 a4 50 00", {packed[0]})),
                      hexOf(transfer("02 10 a4 50 14", partOf(packed, 20, 4))),
                      hexOf(transfer("02 10 a4 50 31", partOf(packed, 49, 108))),
                      "02 10 a4 50 18 05 00", hexOf(transfer("02 10 a4 50 19", {packed[25]}))},
                     kEnable));
    EXPECT_EQ(pauses, concat({"3.000000 s", "0.010000 s", "0.010000 s", "0.010000 s", "0.010000 s",
                              "0.010000 s"},
                             kEnablePauses));
}

TEST_F(ScreenNetGap, FilterIsBytes49To156Of114BytesInAll) {
    packed[24] = 1;
    oneRow(0x10A45000);
    sendNetGapeEnable(1, packed.data());
    const Bytes filter = writes()[2];
    EXPECT_EQ(filter.size(), 114U);
    EXPECT_EQ(filter[5], packed[49]);
    EXPECT_EQ(filter[112], packed[156]);
    EXPECT_EQ(filter[113], 0);
}

TEST_F(ScreenNetGap, EachFrameOfABlockIsLoggedByteByByteAtInformationLevel) {
    setLogLevel("D");
    packed[24] = 0;
    oneRow(0x10A45000);
    sendNetGapeEnable(1, packed.data());
    const auto frames = writtenHex();
    const char* const labels[] = {"param", "ip", "filter", "enable", "refresh", "filter"};
    std::vector<std::string> expected = {"D send_sub_pixel 0x10a45000 \n"};
    for (size_t i = 0; i < 6; ++i) {
        expected = concat(expected,
                          bytesLogged(std::string("send_buff_sunpixel_") + labels[i], frames[i]));
    }
    EXPECT_EQ(messages(), expected);
    EXPECT_EQ(expected[1], "I send_buff_sunpixel_param[0] = 0x2\n");
    EXPECT_EQ(expected.size(), 1U + 26 + 10 + 114 + 7 + 7 + 114);
}

TEST_F(ScreenNetGap, OneParameterIsLoggedUnderTheSameName) {
    setLogLevel("I");
    packed[0] = 0xAB;
    packed[24] = 1;
    oneRow(0x10A45000);
    sendNetGapeEnable(1, packed.data());
    const auto lines = messages();
    ASSERT_EQ(lines.size(), 7U + 10 + 114 + 7 + 7);
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 7),
              bytesLogged("send_buff_sunpixel_param", "02 10 a4 50 00 ab 00"));
}

TEST_F(ScreenNetGap, EveryBlockOfTheKindIsSent) {
    for (int i = 0; i < 3; ++i) st_func_offset_map_tab[i] = {0x10A45000, 1, 0};
    st_func_offset_map_tab[1].fpga_addr = 0x10A45001;
    packed[24] = 1;
    sendNetGapeEnable(3, packed.data());
    EXPECT_EQ(writes().size(), 5U + 5U + 7U);
}

TEST_F(ScreenNetGap, WithoutDataTheEnableByteCountsAs0AndFramesGoWithZeros) {
    oneRow(0x10A45000);
    sendNetGapeEnable(1, nullptr);
    const std::string filter = hexOf(transfer("02 10 a4 50 31", Bytes(108)));
    EXPECT_EQ(writtenHex(), concat({hexOf(transfer("02 10 a4 50 00", Bytes(20))),
                                    hexOf(transfer("02 10 a4 50 14", Bytes(4))), filter,
                                    "02 10 a4 50 18 00 00", "02 10 a4 50 19 00 00", filter},
                                   kEnable));
    EXPECT_EQ(messages(), std::vector<std::string>(5, "E dst or src is NULL\n"));
}

TEST_F(ScreenNetGap, BlockAtTheEndOfThePackedDataGoesWithZerosBehindIt) {
    st_func_offset_map_tab[0] = {0x10A45000, 1, static_cast<uint32_t>(kImageSize - 10)};
    sendNetGapeEnable(1, packed.data());
    Bytes parameters = partOf(packed, kImageSize - 10, 20);
    EXPECT_EQ(hexOf(writes()[0]), hexOf(transfer("02 10 a4 50 00", parameters)));
    EXPECT_EQ(hexOf(writes()[2]), hexOf(transfer("02 10 a4 50 31", Bytes(108))));
}

// The wait for the network side.

class ScreenNetworkWait : public FpgaScreen {
  protected:
    static constexpr char kAlready[] = "I already net enable\n";
    static constexpr char kTooLong[] =
        "I fpgaLoadScreenParamsBySpi: More than 3 second passed, continuing...\n";

    ScreenNetworkWait() {
        putPartition(partitionOf({{1, {1}}}));
        startFresh("I");
    }
    // How long a load waited for the network side.
    board::Nanos waited() {
        const board::Nanos start = board.now(), worked = board.deviceTime();
        EXPECT_EQ(fpgaLoadScreenParamsBySpi(), 0);
        const board::Nanos pauses = std::chrono::milliseconds(7 * 10 + 10 + 3000 + 7 * 10 + 200);
        return board.now() - start - (board.deviceTime() - worked) - pauses;
    }
};

TEST_F(ScreenNetworkWait, OfASideThatIsUpTakesNoTimeAndIsLoggedBehindTheNetGap) {
    EXPECT_EQ(waited(), board::Nanos(0));
    EXPECT_THAT(messages(), ElementsAre(kAlready));
    const auto events = board.trace().events();
    EXPECT_EQ(events.back().kind, board::EventKind::kLog);
    EXPECT_EQ(writtenHex(), concat(concat(kFixed, {kControlOn}), kEnable));
}

TEST_F(ScreenNetworkWait, OfASideThatNeverComesTakes4WholeSecondsAndIsLoggedBeforeTheNetGap) {
    memset(buffer, 0, sizeof(buffer));
    board.runFor(std::chrono::milliseconds(300));
    const board::Nanos time = waited();
    // The wait counts whole seconds of the clock: it begins at 0.38 s and ends at 4 s.
    EXPECT_GT(time, std::chrono::milliseconds(3610));
    EXPECT_LT(time, std::chrono::milliseconds(3630));
    EXPECT_THAT(messages(), ElementsAre(kTooLong));
    std::vector<std::string> order;
    for (const auto& event : board.trace().events()) {
        if (event.kind == board::EventKind::kLog) order.push_back("log");
        if (event.kind == board::EventKind::kSleep) order.push_back(event.text);
    }
    EXPECT_EQ(std::find(order.begin(), order.end(), "log") + 1,
              std::find(order.begin(), order.end(), "3.000000 s"));
    EXPECT_EQ(writtenHex(), concat(concat(kFixed, {kControlOn}), kEnable));
}

TEST_F(ScreenNetworkWait, EndsWhenTheOtherThreadHasWrittenTheLastByte) {
    memset(buffer, 0, sizeof(buffer));
    std::thread network([] {
        usleep(2080000);  // 2 s into the wait
        for (const auto& [at, value] : {std::pair{33, 9}, {42, 9}, {47, 9}, {25, 1}, {23, 3}}) {
            __atomic_store_n(&buffer[at], static_cast<uint8_t>(value), __ATOMIC_RELEASE);
        }
    });
    const board::Nanos time = waited();
    EXPECT_GE(time, std::chrono::milliseconds(1990));
    EXPECT_LE(time, std::chrono::milliseconds(2010));
    EXPECT_THAT(messages(), ElementsAre(kAlready));
    network.join();
}

TEST_F(ScreenNetworkWait, NeedsEveryByteOfTheWordAndAByteOfEachPair) {
    for (const int at : {23, 25, 33, 42, 47}) {
        networkIsUp();
        buffer[at] = 0;
        board.clearLog();
        EXPECT_EQ(fpgaLoadScreenParamsBySpi(), 0);
        EXPECT_THAT(messages(), ElementsAre(kTooLong)) << at;
    }
    for (const int at : {22, 24}) {
        networkIsUp();
        buffer[at] = 1;
        board.clearLog();
        EXPECT_EQ(fpgaLoadScreenParamsBySpi(), 0);
        EXPECT_THAT(messages(), ElementsAre(kTooLong)) << at;
        buffer[at] = 0;
    }
}

TEST_F(ScreenNetworkWait, TakesEitherByteOfAPair) {
    for (const int pair : {33, 41, 47}) {
        for (const int other : {0, 1}) {
            networkIsUp();
            buffer[pair] = buffer[pair + 1] = 0;
            buffer[pair + other] = 0x80;
            board.clearLog();
            EXPECT_EQ(fpgaLoadScreenParamsBySpi(), 0);
            EXPECT_THAT(messages(), ElementsAre(kAlready)) << pair + other;
        }
    }
}

}  // namespace quil::tests
