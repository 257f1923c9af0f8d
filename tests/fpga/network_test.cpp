// The network's bring-up: its steps one by one, one attempt, and the attempts together.
#include <errno.h>

#include "fpga/network_bring_up.h"
#include "tests/fpga/fpga_test.h"

namespace quil::tests {

using board::Call;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr char kResetFile[] = "/sys/class/quilgpios/RTL8211FS_RSTN/value";

constexpr char kRmmod[] = "$ rmmod dwmac_meson8b";
constexpr char kInsmod[] = "$ insmod /vendor_dlkm/lib/modules/dwmac-meson8b.ko";
constexpr char kIfconfig[] = "$ ifconfig eth1 240.10.10.10 netmask 255.255.255.0 up";
constexpr char kPhyPage[] = "$ echo w 0x1f 0xd08 > /sys/class/ethernet/phyreg";
constexpr char kPhyRead[] = "$ echo r 0x10 > /sys/class/ethernet/phyreg";
constexpr char kPhyWrite[] = "$ echo w 0x10 0x5e > /sys/class/ethernet/phyreg";

// The steps of a healthy attempt between the clock and the reset pulse.
const std::vector<std::string> kSetUp = {"RTL8211FS_RSTN = 0",
                                         "sleep 0.500000 s",
                                         "RTL8211FS_RSTN = 1",
                                         "sleep 0.200000 s",
                                         kRmmod,
                                         "sleep 0.001000 s",
                                         kInsmod,
                                         kIfconfig,
                                         kPhyPage,
                                         kPhyRead,
                                         kPhyWrite};
const std::vector<std::string> kResetPulse = {
    "sleep 0.010000 s",         "spi 02 00 00 11 01 00 00", "sleep 0.010000 s",
    "spi 02 00 00 11 02 00 00", "sleep 0.005000 s",         "sleep 0.010000 s",
    "spi 02 00 00 11 01 01 00", "sleep 0.010000 s",         "spi 02 00 00 11 02 01 00"};
constexpr char kClockRead[] = "read 0x00001100", kNegotiationRead[] = "read 0x00001103";
constexpr char kPollPause[] = "sleep 0.002000 s";

const std::vector<std::string> kSetUpMessages = {
    "I reset 8211fs successful\n",
    "I fpgaDwmacConfig: rmmod dwmac_meson8b\n",
    "I fpgaDwmacConfig: insmod dwmac-meson8b.ko\n",
    "I fpgaEthConfig: config eth1 ip mask up\n",
    "I fpgaPhyConfig: set phy register\n",
    "I fpgaPhySgmiiConfig: sendFpgaTxRxReset ok\n",
};

template <typename... Parts>
std::vector<std::string> joined(const Parts&... parts) {
    std::vector<std::string> all;
    (all.insert(all.end(), parts.begin(), parts.end()), ...);
    return all;
}

std::vector<std::string> one(const std::string& line) { return {line}; }

}  // namespace

class FpgaNetwork : public FpgaTest {
  protected:
    FpgaNetwork() {
        parseProduct();
        // All commands fail: their exit codes are ignored.
        board.faults().add({.call = Call::kSystem, .times = -1, .exitCode = 1});
        board.phy().setStatusText("0x907");
        clockReads({1});
        negotiationReads({1});
        startFresh("I");
    }
    void clockReads(std::vector<uint8_t> states) { board.fpga().scriptReads(kClockAt, states); }
    void negotiationReads(std::vector<uint8_t> states) {
        board.fpga().scriptReads(kNegotiationAt, states);
    }
};

// The steps.

TEST_F(FpgaNetwork, DriverIsUnloadedAndLoadedWithAMillisecondBetween) {
    EXPECT_EQ(fpgaDwmacConfig(), 0);
    EXPECT_THAT(timeline(), ElementsAre(kRmmod, "sleep 0.001000 s", kInsmod));
    EXPECT_THAT(messages(), ElementsAre("I fpgaDwmacConfig: rmmod dwmac_meson8b\n",
                                        "I fpgaDwmacConfig: insmod dwmac-meson8b.ko\n"));
}

TEST_F(FpgaNetwork, Eth1GetsItsAddress) {
    EXPECT_EQ(fpgaEthConfig(), 0);
    EXPECT_THAT(timeline(), ElementsAre(kIfconfig));
    EXPECT_THAT(messages(), ElementsAre("I fpgaEthConfig: config eth1 ip mask up\n"));
}

TEST_F(FpgaNetwork, PhyRegistersAreSetInThisOrder) {
    EXPECT_EQ(fpgaPhyConfig(), 0);
    EXPECT_THAT(timeline(), ElementsAre(kPhyPage, kPhyRead, kPhyWrite));
    EXPECT_THAT(messages(), ElementsAre("I fpgaPhyConfig: set phy register\n"));
}

TEST_F(FpgaNetwork, StepsSayNothingAtTheDefaultLevel) {
    startFresh("E");
    fpgaDwmacConfig();
    fpgaEthConfig();
    fpgaPhyConfig();
    reset8211FS();
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(FpgaNetwork, PhyResetIsLowForHalfASecondAndRestsFor200Milliseconds) {
    EXPECT_EQ(reset8211FS(), 0);
    EXPECT_THAT(timeline(), ElementsAre("RTL8211FS_RSTN = 0", "sleep 0.500000 s",
                                        "RTL8211FS_RSTN = 1", "sleep 0.200000 s"));
    EXPECT_THAT(messages(), ElementsAre("I reset 8211fs successful\n"));
    const auto closes = board.trace().events(board::EventKind::kClose);
    ASSERT_EQ(closes.size(), 1U);
    EXPECT_EQ(closes[0].source, kResetFile);
}

TEST_F(FpgaNetwork, PhyResetWhoseFileIsMissingFailsAtOnce) {
    board.faults().add({.call = Call::kOpen, .path = kResetFile, .error = ENOENT});
    EXPECT_EQ(reset8211FS(), -1);
    EXPECT_THAT(timeline(), IsEmpty());
    EXPECT_THAT(messages(), ElementsAre("E open failed! reset8211FS\n"));
}

TEST_F(FpgaNetwork, PhyResetThatCannotGoLowFailsAndClosesTheFile) {
    board.faults().add({.call = Call::kWrite, .path = kResetFile, .error = EIO});
    EXPECT_EQ(reset8211FS(), -1);
    EXPECT_THAT(timeline(), IsEmpty());
    EXPECT_THAT(messages(), ElementsAre("E reset 8211fs to low failed! reset8211FS\n"));
    EXPECT_EQ(board.trace().events(board::EventKind::kClose).size(), 1U);
}

TEST_F(FpgaNetwork, PhyResetThatCannotGoHighFailsAndClosesTheFile) {
    board.faults().add({.call = Call::kWrite, .path = kResetFile, .error = EIO, .after = 1});
    EXPECT_EQ(reset8211FS(), -1);
    EXPECT_THAT(timeline(), ElementsAre("RTL8211FS_RSTN = 0", "sleep 0.500000 s"));
    EXPECT_THAT(messages(), ElementsAre("E reset 8211fs to hight failed! reset8211FS\n"));
    EXPECT_EQ(board.trace().events(board::EventKind::kClose).size(), 1U);
}

// One attempt.

TEST_F(FpgaNetwork, AttemptRunsItsStepsInOrder) {
    EXPECT_EQ(fpgaPhySgmiiConfig(), 0);
    EXPECT_EQ(timeline(), joined(one(kClockRead), kSetUp, kResetPulse, one(kNegotiationRead)));
    EXPECT_EQ(messages(),
              joined(one("I fpgaPhySgmiiConfig,readFpgaSgmiiClockState state = 0x01\n"),
                     one("I fpgaPhySgmiiConfig: readFpgaSgmiiClockState ok\n"), kSetUpMessages,
                     one("I fpgaPhySgmiiConfig,readFpgaSgmiiNegotiationState state = 0x01\n"),
                     one("I fpgaPhySgmiiConfig: readFpgaSgmiiNegotiationState ok\n"),
                     one("I <readRtl8211fsPhyLink> get phylink value:'0x907' (length: 5)\n"),
                     one("I fpgaPhySgmiiConfig: readRtl8211fsPhyLink ok\n")));
}

TEST_F(FpgaNetwork, ClockThatIsPresentAtTheFirstPollIsNotWaitedFor) {
    fpgaPhySgmiiConfig();
    EXPECT_THAT(sleeps(), Not(Contains("0.002000 s")));
}

TEST_F(FpgaNetwork, ClockThatComesLaterIsPolledEvery2Milliseconds) {
    clockReads({0, 2, 1});
    EXPECT_EQ(fpgaPhySgmiiConfig(), 0);
    EXPECT_EQ(timeline(), joined(std::vector<std::string>{kClockRead, kPollPause, kClockRead,
                                                          kPollPause, kClockRead},
                                 kSetUp, kResetPulse, one(kNegotiationRead)));
    EXPECT_EQ(messages()[1], "I fpgaPhySgmiiConfig,readFpgaSgmiiClockState state = 0x02\n");
}

TEST_F(FpgaNetwork, ClockThatNeverComesFailsTheAttemptAfter10Polls) {
    clockReads({0});
    EXPECT_EQ(fpgaPhySgmiiConfig(), -1);
    std::vector<std::string> events, lines;
    for (int i = 0; i < 10; ++i) {
        events.insert(events.end(), {kClockRead, kPollPause});
        lines.push_back("I fpgaPhySgmiiConfig,readFpgaSgmiiClockState state = 0x00\n");
    }
    lines.push_back("E fpgaPhySgmiiConfig: readFpgaSgmiiClockState failed\n");
    EXPECT_EQ(timeline(), events);
    EXPECT_EQ(messages(), lines);
}

TEST_F(FpgaNetwork, ClockReadThatFailsLeavesTheByteBeforeItInForce) {
    clockReads({0x40});
    board.faults().add(
        {.call = Call::kRead, .path = kSpiDevice, .error = EIO, .after = 1, .times = 9});
    EXPECT_EQ(fpgaPhySgmiiConfig(), -1);
    std::vector<std::string> lines = {
        "I fpgaPhySgmiiConfig,readFpgaSgmiiClockState state = 0x40\n"};
    for (int i = 0; i < 9; ++i) {
        lines.push_back(
            "E readFpgaSgmiiClockState: read spi port /dev/fpga_spi failed, return -1.\n");
        lines.push_back("E fpgaPhySgmiiConfig: spi_read_state failed\n");
        lines.push_back("I fpgaPhySgmiiConfig,readFpgaSgmiiClockState state = 0x40\n");
    }
    lines.push_back("E fpgaPhySgmiiConfig: readFpgaSgmiiClockState failed\n");
    EXPECT_EQ(messages(), lines);
}

TEST_F(FpgaNetwork, PhyResetThatFailsDoesNotKeepTheAttemptFromTheDriver) {
    board.faults().add({.call = Call::kOpen, .path = kResetFile, .error = ENOENT});
    EXPECT_EQ(fpgaPhySgmiiConfig(), 0);
    EXPECT_EQ(messages()[2], "E open failed! reset8211FS\n");
    EXPECT_EQ(messages()[3], "I fpgaDwmacConfig: rmmod dwmac_meson8b\n");
}

TEST_F(FpgaNetwork, ResetPulseWhoseLastStepFailsFailsTheAttempt) {
    board.faults().add({.call = Call::kWrite, .path = kSpiDevice, .error = EIO, .after = 3});
    EXPECT_EQ(fpgaPhySgmiiConfig(), -1);
    EXPECT_EQ(messages().back(), "E fpgaPhySgmiiConfig: sendFpgaTxRxReset failed\n");
    EXPECT_THAT(timeline(), Not(Contains(kNegotiationRead)));
}

TEST_F(FpgaNetwork, ResetPulseWhoseFirstStepFailsIsGoodEnough) {
    board.faults().add({.call = Call::kWrite, .path = kSpiDevice, .error = EIO});
    EXPECT_EQ(fpgaPhySgmiiConfig(), 0);
    EXPECT_THAT(messages(), Contains("E sendFpgaTxRxReset: send_tx_reset_low failed\n"));
    EXPECT_THAT(messages(), Contains("I fpgaPhySgmiiConfig: sendFpgaTxRxReset ok\n"));
}

TEST_F(FpgaNetwork, TransfersOfNoBytesAreNoFailures) {
    board.faults().add(
        {.call = Call::kWrite, .path = kSpiDevice, .shortTo = 0, .after = 3, .times = 1});
    EXPECT_EQ(fpgaPhySgmiiConfig(), 0);
    EXPECT_THAT(messages(), Contains("I fpgaPhySgmiiConfig: sendFpgaTxRxReset ok\n"));
    startFresh("I");
    board.faults().add({.call = Call::kRead, .path = kSpiDevice, .shortTo = 0, .times = 2});
    EXPECT_EQ(fpgaPhySgmiiConfig(), 0);
    EXPECT_THAT(messages(), Not(Contains("E fpgaPhySgmiiConfig: spi_read_state failed\n")));
}

TEST_F(FpgaNetwork, NegotiationThatNeverCompletesStillAsksThePhy) {
    negotiationReads({0});
    EXPECT_EQ(fpgaPhySgmiiConfig(), 0);
    std::vector<std::string> polls, lines;
    for (int i = 0; i < 10; ++i) {
        polls.insert(polls.end(), {kNegotiationRead, kPollPause});
        lines.push_back("I fpgaPhySgmiiConfig,readFpgaSgmiiNegotiationState state = 0x00\n");
    }
    EXPECT_EQ(timeline(), joined(one(kClockRead), kSetUp, kResetPulse, polls));
    EXPECT_EQ(messages(),
              joined(one("I fpgaPhySgmiiConfig,readFpgaSgmiiClockState state = 0x01\n"),
                     one("I fpgaPhySgmiiConfig: readFpgaSgmiiClockState ok\n"), kSetUpMessages,
                     lines, one("I <readRtl8211fsPhyLink> get phylink value:'0x907' (length: 5)\n"),
                     one("I fpgaPhySgmiiConfig: readRtl8211fsPhyLink ok\n")));
}

TEST_F(FpgaNetwork, NegotiationDoesNotStartFromTheClocksByte) {
    board.faults().add(
        {.call = Call::kRead, .path = kSpiDevice, .error = EIO, .after = 1, .times = -1});
    EXPECT_EQ(fpgaPhySgmiiConfig(), 0);
    const auto lines = messages();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "I fpgaPhySgmiiConfig,readFpgaSgmiiNegotiationState state = 0x00\n"),
              10);
    EXPECT_EQ(
        std::count(lines.begin(), lines.end(), "E fpgaPhySgmiiConfig: spi_read_state failed\n"),
        10);
    EXPECT_THAT(lines, Not(Contains("I fpgaPhySgmiiConfig: readFpgaSgmiiNegotiationState ok\n")));
}

TEST_F(FpgaNetwork, NegotiationThatCompletesLaterIsPolledEvery2Milliseconds) {
    negotiationReads({0, 1});
    EXPECT_EQ(fpgaPhySgmiiConfig(), 0);
    const auto events = timeline();
    EXPECT_THAT(std::vector<std::string>(events.end() - 3, events.end()),
                ElementsAre(kNegotiationRead, kPollPause, kNegotiationRead));
}

TEST_F(FpgaNetwork, PhyWithoutLinkFailsTheAttempt) {
    board.phy().setStatusText("0x000");
    EXPECT_EQ(fpgaPhySgmiiConfig(), -1);
    EXPECT_EQ(messages().back(), "E fpgaPhySgmiiConfig: readRtl8211fsPhyLink failed\n");
}

TEST_F(FpgaNetwork, PhyThatCannotBeAskedFailsTheAttempt) {
    board.faults().add(
        {.call = Call::kAccess, .path = "/sys/class/ethernet/quilphyreg", .error = ENOENT});
    EXPECT_EQ(fpgaPhySgmiiConfig(), -1);
    EXPECT_EQ(messages().back(), "E fpgaPhySgmiiConfig: readRtl8211fsPhyLink failed\n");
}

// The attempts together.

TEST_F(FpgaNetwork, FirstAttemptThatSucceedsIsTheLast) {
    const std::string printed = standardOutputOf([] { EXPECT_EQ(fpgaNetworkConfig(), 0); });
    EXPECT_EQ(printed, "in fpgaNetworkConfig\nfpgaNetworkConfig try\n");
    EXPECT_EQ(messages().back(), "I fpgaNetworkConfig: fpgaPhySgmiiConfig ok\n");
}

TEST_F(FpgaNetwork, SecondAttemptThatSucceedsIsTheLast) {
    clockReads({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1});
    const std::string printed = standardOutputOf([] { EXPECT_EQ(fpgaNetworkConfig(), 0); });
    EXPECT_EQ(printed, "in fpgaNetworkConfig\nfpgaNetworkConfig try\nfpgaNetworkConfig try\n");
    EXPECT_EQ(messages().back(), "I fpgaNetworkConfig: fpgaPhySgmiiConfig ok\n");
}

TEST_F(FpgaNetwork, FiveFailedAttemptsAreLoggedOnceAndReturn0AllTheSame) {
    startFresh("E");
    clockReads({0});
    const std::string printed = standardOutputOf([] { EXPECT_EQ(fpgaNetworkConfig(), 0); });
    EXPECT_EQ(printed,
              "in fpgaNetworkConfig\nfpgaNetworkConfig try\nfpgaNetworkConfig try\n"
              "fpgaNetworkConfig try\nfpgaNetworkConfig try\nfpgaNetworkConfig try\n");
    auto lines =
        std::vector<std::string>(5, "E fpgaPhySgmiiConfig: readFpgaSgmiiClockState failed\n");
    lines.push_back("E fpgaNetworkConfig: fpgaPhySgmiiConfig failed\n");
    EXPECT_EQ(messages(), lines);
}

}  // namespace quil::tests
