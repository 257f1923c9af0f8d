// Which MCU the boot loader says it runs on.
#include <errno.h>

#include <chrono>

#include "tests/isp/isp_test.h"

namespace quil::tests {

using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

class IspIdentification : public IspTest {
  protected:
    IspIdentification() { openPort(); }
};

// The GD32 command.

TEST_F(IspIdentification, GdIdentifierIsLittleEndianAfterItsLength) {
    setLogLevel("D");
    mcu.expect({0x06, 0xF9}, {0x79, 0x04, 0x78, 0x56, 0x34, 0x12, 0x79});
    EXPECT_EQ(read_gd_mcu_pid(), 0x12345678U);
    EXPECT_THAT(said(), ElementsAre("D read_gd_mcu_pid: read gd pid data len = 4\n"));
}

TEST_F(IspIdentification, RefusedGdCommandGives0WithoutAWord) {
    setLogLevel("D");
    mcu.expect({0x06, 0xF9}, kAnswerNack);
    EXPECT_EQ(read_gd_mcu_pid(), 0U);
    EXPECT_THAT(said(), IsEmpty());
}

TEST_F(IspIdentification, GdIdentifierOfSixteenBytesIsReadWhole) {
    Bytes answer = {0x79, 16, 0x30, 0x5A, 0x45, 0x4E};
    answer.resize(18, 0xEE);
    answer.push_back(0x79);
    mcu.expect({0x06, 0xF9}, answer);
    EXPECT_EQ(read_gd_mcu_pid(), 0x4E455A30U);
    EXPECT_THAT(said(), IsEmpty());
}

TEST_F(IspIdentification, LongerGdIdentifierIsReadAsOneOfSixteen) {
    Bytes answer = {0x79, 17, 0x30, 0x5A, 0x45, 0x4E};
    answer.resize(18, 0xEE);
    answer.push_back(0x79);
    mcu.expect({0x06, 0xF9}, answer);
    EXPECT_EQ(read_gd_mcu_pid(), 0x4E455A30U);
    EXPECT_THAT(said(), ElementsAre("E read_gd_mcu_pid: read gd pid length(16) is larger than max "
                                    "size(16), use max size\n"));
}

TEST_F(IspIdentification, GdIdentifierOf255BytesStaysInsideItsBuffer) {
    Bytes answer(2 + 256, 0xEE);
    answer[0] = 0x79;
    answer[1] = 255;
    mcu.expect({0x06, 0xF9}, answer);
    EXPECT_EQ(read_gd_mcu_pid(), 0U);
    EXPECT_THAT(said(), ElementsAre("E read_gd_mcu_pid: read gd pid length(16) is larger than max "
                                    "size(16), use max size\n",
                                    "E read_gd_mcu_pid: End byte(0xee) is not equal to 0x79\n"));
}

TEST_F(IspIdentification, WrongEndByteIsReportedByTheByteBeforeIt) {
    mcu.expect({0x06, 0xF9}, {0x79, 0x04, 0x11, 0x22, 0x33, 0x44, 0x55});
    EXPECT_EQ(read_gd_mcu_pid(), 0U);
    EXPECT_THAT(said(), ElementsAre("E read_gd_mcu_pid: End byte(0x44) is not equal to 0x79\n"));
}

TEST_F(IspIdentification, ShortGdIdentifierTakesItsAckAsAByteOfIt) {
    mcu.expect({0x06, 0xF9}, {0x79, 0x02, 0x11, 0x22, 0x79});
    EXPECT_EQ(read_gd_mcu_pid(), 0x792211U);
}

TEST_F(IspIdentification, EmptyGdIdentifierIsItsAck) {
    mcu.expect({0x06, 0xF9}, {0x79, 0x00, 0x79});
    EXPECT_EQ(read_gd_mcu_pid(), 0x79U);
}

TEST_F(IspIdentification, GdPartThatFallsSilentAfterItsAckTimesOutTwice) {
    setLogLevel("D");
    mcu.expect({0x06, 0xF9}, kAnswerAck);
    EXPECT_EQ(read_gd_mcu_pid(), 0U);
    EXPECT_THAT(said(),
                ElementsAre(timeOut(0), "D read_gd_mcu_pid: read gd pid data len = 0\n", timeOut(0),
                            "E read_gd_mcu_pid: End byte(0x0) is not equal to 0x79\n"));
}

// The STM32 command.

TEST_F(IspIdentification, StIdentifierOf450IsTheOnlyOneKnown) {
    mcu.expect({0x02, 0xFD}, kStm32H750Id);
    EXPECT_EQ(read_st_mcu_pid(), 0x450U);
    mcu.expect({0x02, 0xFD}, {0x79, 0x01, 0x04, 0x13, 0x79});
    EXPECT_EQ(read_st_mcu_pid(), 0U);
    mcu.expect({0x02, 0xFD}, {0x79, 0x02, 0x04, 0x50, 0x79});
    EXPECT_EQ(read_st_mcu_pid(), 0U);
}

TEST_F(IspIdentification, StIdentifierAlwaysRunsIntoItsTimeOut) {
    mcu.expect({0x02, 0xFD}, kStm32H750Id);
    board.trace().clear();
    EXPECT_EQ(read_st_mcu_pid(), 0x450U);
    // 100 idle rounds, and one that waited for the command's own answer.
    EXPECT_EQ(board.trace().events(board::EventKind::kSleep).size(), 101U);
    EXPECT_THAT(said(), ElementsAre(timeOut(4)));
}

TEST_F(IspIdentification, RefusedStCommandGives0WithoutAWord) {
    setLogLevel("D");
    mcu.expect({0x02, 0xFD}, kAnswerNack);
    EXPECT_EQ(read_st_mcu_pid(), 0U);
    EXPECT_THAT(said(), IsEmpty());
}

// Detection.

struct IspGdPartRow {
    Bytes answer;
    const char* pid;
    const char* type;
};
void PrintTo(const IspGdPartRow& row, std::ostream* out) { *out << row.pid << ' ' << row.type; }
class IspGdDetection : public IspIdentification,
                       public testing::WithParamInterface<IspGdPartRow> {};

TEST_P(IspGdDetection, NamesItsTypeWithoutAskingForAnother) {
    setLogLevel("D");
    mcu.expect({0x06, 0xF9}, GetParam().answer);
    mcu_type_detect();
    EXPECT_THAT(
        said(),
        ElementsAre("D read_gd_mcu_pid: read gd pid data len = 4\n",
                    std::string("D mcu_type_detect: read gd mcu pid = 0x") + GetParam().pid + "\n",
                    "I mcu_type_detect: clear all unread uart input data\n",
                    std::string("I mcu_type_detect: _mcu_type: ") + GetParam().type + "\n"));
}

INSTANTIATE_TEST_SUITE_P(Each, IspGdDetection,
                         testing::Values(IspGdPartRow{kGd32F470Pid, "4e455a30", "MCU_GD32F470"},
                                         IspGdPartRow{{0x79, 0x04, 0x30, 0x56, 0x45, 0x4E, 0x79},
                                                      "4e455630",
                                                      "MCU_GD32F470"},
                                         IspGdPartRow{kGd32F303Pid, "46455633", "MCU_GD32F303"}));

TEST_F(IspIdentification, Stm32IsFoundAfterAnErrorLineForTheGdQuestion) {
    setLogLevel("D");
    mcu.expect({0x06, 0xF9}, kAnswerNack);
    mcu.expect({0x02, 0xFD}, kStm32H750Id);
    mcu_type_detect();
    EXPECT_THAT(said(), ElementsAre("D mcu_type_detect: read gd mcu pid = 0x0\n",
                                    "E mcu_type_detect: not gd mcu pid = 0x0\n", timeOut(4),
                                    "D mcu_type_detect: read st mcu pid = 0x450\n",
                                    "I mcu_type_detect: clear all unread uart input data\n",
                                    "I mcu_type_detect: _mcu_type: MCU_STM32H750\n"));
}

TEST_F(IspIdentification, HealthyStm32PrintsExactlyTwoErrorLines) {
    mcu.expect({0x06, 0xF9}, kAnswerNack);
    mcu.expect({0x02, 0xFD}, kStm32H750Id);
    mcu_type_detect();
    EXPECT_THAT(said(), ElementsAre("E mcu_type_detect: not gd mcu pid = 0x0\n", timeOut(4)));
}

TEST_F(IspIdentification, StrangerKeepsTheTypeOfTheLastPart) {
    mcu.expect({0x06, 0xF9}, kGd32F303Pid);
    mcu_type_detect();
    board.clearLog();
    setLogLevel("I");
    mcu.expect({0x06, 0xF9}, {0x79, 0x04, 0x78, 0x56, 0x34, 0x12, 0x79});
    mcu.expect({0x02, 0xFD}, {0x79, 0x01, 0x04, 0x13, 0x79});
    mcu_type_detect();
    EXPECT_THAT(said(), ElementsAre("E mcu_type_detect: not gd mcu pid = 0x12345678\n", timeOut(4),
                                    "E mcu_type_detect: not st mcu pid = 0x0\n",
                                    "I mcu_type_detect: clear all unread uart input data\n",
                                    "I mcu_type_detect: _mcu_type: MCU_GD32F303\n"));
}

TEST_F(IspIdentification, DetectionDropsWhatIsLeftUnread) {
    Bytes answer = kGd32F303Pid;
    answer.insert(answer.end(), {0x01, 0x02, 0x03});
    mcu.expect({0x06, 0xF9}, answer);
    mcu_type_detect();
    uint8_t byte = 0;
    EXPECT_EQ(read(fd, &byte, 1), 0);
}

TEST_F(IspIdentification, DetectionWithoutAPortEndsWithoutWaiting) {
    mcu_serial_close();
    fd = -1;
    const auto start = board.now();
    mcu_type_detect();
    EXPECT_EQ(board.now(), start);
    EXPECT_THAT(said(), ElementsAre("E mcu_type_detect: not gd mcu pid = 0x0\n",
                                    "E mcu_type_detect: not st mcu pid = 0x0\n"));
}

}  // namespace quil::tests
