// The DDR check, and the FPGA's restart through PROG_B when the DDR is not ready.
#include "fpga/ddr_recovery.h"

#include <errno.h>

#include "tests/fpga/fpga_test.h"

namespace quil::tests {

using board::Call;
using testing::ElementsAre;

namespace {

constexpr char kRead[] = "read 0x00001016", kSecond[] = "sleep 1.000000 s";

// The messages of one attempt that finds the DDR not ready: at level 'D', without the read's bytes.
std::vector<std::string> badAttempt(const std::string& hex, const std::string& decimal) {
    return {"I fpgaCheckDDRAndRecovery, fpga_ddr_state = 0x" + hex + "\n",
            "E fpgaRecovery: invalid fpga_ddr_state = " + decimal + "\n",
            "D fpgaRecovery: PROG_B gpio 441 pull low\n",
            "D fpgaRecovery: PROG_B gpio 441 pull high\n",
            "D fpgaRecovery: fpgaCheckDone ok\n",
            "D fpgaCheckDDRAndRecovery: ddr_recovery end\n"};
}

}  // namespace

class FpgaDdr : public FpgaTest {
  protected:
    FpgaDdr() {
        parseProduct();
        board.gpio().at(443).stickAt(1);
        startFresh();
    }
    void ddrReads(std::vector<uint8_t> states) { board.fpga().scriptReads(kDdrAt, states); }
    int programEdges() {
        const auto lines = timeline();
        return static_cast<int>(std::count(lines.begin(), lines.end(), "gpio 441 = 0"));
    }
    // The recovery's own messages: without the bytes of the reads and those of the DONE check.
    std::vector<std::string> recoveryMessages() {
        std::vector<std::string> kept;
        for (const std::string& line : messages()) {
            if (line.find("send_data[") == std::string::npos &&
                line.find(" fpgaCheckDone:") == std::string::npos) {
                kept.push_back(line);
            }
        }
        return kept;
    }
};

TEST_F(FpgaDdr, GoodAtTheFirstReadTakesOneSecondAndNoRecovery) {
    ddrReads({1});
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), 0);
    EXPECT_THAT(timeline(), ElementsAre(kSecond, kRead));
    EXPECT_THAT(recoveryMessages(),
                ElementsAre("I fpgaCheckDDRAndRecovery, fpga_ddr_state = 0x01\n"));
}

TEST_F(FpgaDdr, GoodAtTheSecondReadTakesOneRecovery) {
    ddrReads({0, 1});
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), 0);
    EXPECT_THAT(timeline(), ElementsAre(kSecond, kRead, "gpio 441 = 0", "sleep 0.100000 s",
                                        "gpio 441 = 1", kSecond, kRead));
    auto expected = badAttempt("00", "0");
    expected.push_back("I fpgaCheckDDRAndRecovery, fpga_ddr_state = 0x01\n");
    EXPECT_EQ(recoveryMessages(), expected);
}

TEST_F(FpgaDdr, ZeroOnEveryReadTakesThreeRecoveriesAFourthReadAndFails) {
    ddrReads({0});
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), -1);
    std::vector<std::string> expected, events;
    for (int i = 0; i < 3; ++i) {
        for (const auto& line : badAttempt("00", "0")) expected.push_back(line);
        for (const char* event :
             {kSecond, kRead, "gpio 441 = 0", "sleep 0.100000 s", "gpio 441 = 1"}) {
            events.push_back(event);
        }
    }
    expected.push_back("E fpgaCheckDDRAndRecovery: ddr_recovery failed\n");
    events.insert(events.end(), {kSecond, kRead});
    EXPECT_EQ(recoveryMessages(), expected);
    EXPECT_EQ(timeline(), events);
}

TEST_F(FpgaDdr, ThreeOnEveryReadTakesThreeRecoveriesAndCountsAsReady) {
    ddrReads({3});
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), 0);
    EXPECT_EQ(programEdges(), 3);
    std::vector<std::string> expected;
    for (int i = 0; i < 3; ++i) {
        for (const auto& line : badAttempt("03", "3")) expected.push_back(line);
    }
    EXPECT_EQ(recoveryMessages(), expected);
}

TEST_F(FpgaDdr, ZeroThatTurnsGoodAtTheLastReadIsReady) {
    ddrReads({0, 0, 0, 1});
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), 0);
    EXPECT_EQ(programEdges(), 3);
}

TEST_F(FpgaDdr, MissingDeviceTakesThreeRecoveriesAndCountsAsReady) {
    board.faults().add({.call = Call::kOpen, .path = kSpiDevice, .error = ENOENT, .times = -1});
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), 0);
    EXPECT_EQ(programEdges(), 3);
    std::vector<std::string> expected;
    for (int i = 0; i < 3; ++i) {
        expected.push_back("E readFpgaDdrState: open spi port /dev/fpga_spi failed.\n");
        expected.push_back("E fpgaCheckDDRAndRecovery: spi_read_fpga_ddr_state failed\n");
        for (const auto& line : badAttempt("02", "2")) expected.push_back(line);
    }
    expected.push_back("E readFpgaDdrState: open spi port /dev/fpga_spi failed.\n");
    EXPECT_EQ(recoveryMessages(), expected);
}

TEST_F(FpgaDdr, FailedReadGoesOnWithTheStateOfTheReadBefore) {
    ddrReads({5});
    board.faults().add(
        {.call = Call::kRead, .path = kSpiDevice, .error = EIO, .after = 1, .times = -1});
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), 0);
    const auto lines = recoveryMessages();
    EXPECT_EQ(
        std::count(lines.begin(), lines.end(), "E fpgaRecovery: invalid fpga_ddr_state = 5\n"), 3);
}

TEST_F(FpgaDdr, LastReadThatFailsLeavesTheZeroBeforeItInForceWithoutAWordOfItsOwn) {
    ddrReads({0});
    board.faults().add({.call = Call::kRead, .path = kSpiDevice, .error = EIO, .after = 3});
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), -1);
    const auto lines = recoveryMessages();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_THAT(std::vector<std::string>(lines.end() - 3, lines.end()),
                ElementsAre("D fpgaCheckDDRAndRecovery: ddr_recovery end\n",
                            "E readFpgaDdrState: read spi port /dev/fpga_spi failed, return -1.\n",
                            "E fpgaCheckDDRAndRecovery: ddr_recovery failed\n"));
}

TEST_F(FpgaDdr, ReadOfNoBytesIsNoFailure) {
    board.faults().add({.call = Call::kRead, .path = kSpiDevice, .shortTo = 0, .times = -1});
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), 0);
    EXPECT_THAT(messages(), testing::Not(testing::Contains(
                                "E fpgaCheckDDRAndRecovery: spi_read_fpga_ddr_state failed\n")));
}

TEST_F(FpgaDdr, DoneLineThatCannotBeReadCountsAsDoneInARecovery) {
    ddrReads({0, 1});
    board.faults().add({.call = Call::kGpioGet, .path = kDoneLine, .error = EIO, .times = -1});
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), 0);
    EXPECT_EQ(sleeps().size(), 2U + 1U + 20U);
    EXPECT_THAT(recoveryMessages(), testing::Contains("D fpgaRecovery: fpgaCheckDone ok\n"));
}

TEST_F(FpgaDdr, ProgramLineThatIsNotConfiguredIsNamedByItsStandInNumber) {
    ddrReads({0, 1});
    config_info->fpga_control_gpio = 999;
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), 0);
    EXPECT_THAT(recoveryMessages(),
                testing::Contains("E fpgaRecovery: PROG_B gpio 999 set failed\n"));
}

TEST_F(FpgaDdr, ProgramLineThatCannotBePulledLowEndsThisRecoveryButNotItsLastLine) {
    ddrReads({0, 1});
    board.faults().add({.call = Call::kGpioSet, .path = kControlLine, .error = EIO});
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), 0);
    EXPECT_THAT(timeline(), ElementsAre(kSecond, kRead, kSecond, kRead));
    EXPECT_THAT(recoveryMessages(),
                ElementsAre("I fpgaCheckDDRAndRecovery, fpga_ddr_state = 0x00\n",
                            "E fpgaRecovery: invalid fpga_ddr_state = 0\n",
                            "E fpgaRecovery: PROG_B gpio 441 set failed\n",
                            "D fpgaCheckDDRAndRecovery: ddr_recovery end\n",
                            "I fpgaCheckDDRAndRecovery, fpga_ddr_state = 0x01\n"));
}

TEST_F(FpgaDdr, ProgramLineThatCannotBePulledHighAgainSkipsTheDoneCheck) {
    ddrReads({0, 1});
    board.faults().add({.call = Call::kGpioSet, .path = kControlLine, .error = EIO, .after = 1});
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), 0);
    EXPECT_THAT(timeline(),
                ElementsAre(kSecond, kRead, "gpio 441 = 0", "sleep 0.100000 s", kSecond, kRead));
    EXPECT_THAT(recoveryMessages(),
                ElementsAre("I fpgaCheckDDRAndRecovery, fpga_ddr_state = 0x00\n",
                            "E fpgaRecovery: invalid fpga_ddr_state = 0\n",
                            "D fpgaRecovery: PROG_B gpio 441 pull low\n",
                            "E fpgaRecovery: PROG_B gpio 441 set failed\n",
                            "D fpgaCheckDDRAndRecovery: ddr_recovery end\n",
                            "I fpgaCheckDDRAndRecovery, fpga_ddr_state = 0x01\n"));
}

TEST_F(FpgaDdr, DoneThatStaysLowInARecoveryIsLoggedAndTheLoopGoesOn) {
    ddrReads({0, 1});
    board.gpio().at(443).stickAt(0);
    startFresh();
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), 0);
    EXPECT_EQ(sleeps().size(), 2U + 1U + 20U);
    EXPECT_THAT(recoveryMessages(), testing::Contains("E fpgaRecovery: fpgaCheckDone failed\n"));
}

TEST_F(FpgaDdr, SaysOnlyItsFailuresAtTheDefaultLevel) {
    startFresh("E");
    ddrReads({0});
    EXPECT_EQ(fpgaCheckDDRAndRecovery(), -1);
    EXPECT_THAT(messages(), ElementsAre("E fpgaRecovery: invalid fpga_ddr_state = 0\n",
                                        "E fpgaRecovery: invalid fpga_ddr_state = 0\n",
                                        "E fpgaRecovery: invalid fpga_ddr_state = 0\n",
                                        "E fpgaCheckDDRAndRecovery: ddr_recovery failed\n"));
}

}  // namespace quil::tests
