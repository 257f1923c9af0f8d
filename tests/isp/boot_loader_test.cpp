// The boot-loader protocol, exchange by exchange.
#include <errno.h>

#include <chrono>

#include "testing/fresh_process.h"
#include "tests/isp/isp_test.h"

namespace quil::tests {

using board::Call;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StrEq;

class IspBootLoader : public IspTest {
  protected:
    IspBootLoader() { openPort(); }

    void detectAs(const Bytes& gdAnswer) {
        mcu.expect({0x06, 0xF9}, gdAnswer);
        mcu_type_detect();
        board.clearLog();
    }
    void detectStm32() {
        mcu.expect({0x06, 0xF9}, kAnswerNack);
        mcu.expect({0x02, 0xFD}, kStm32H750Id);
        mcu_type_detect();
        board.clearLog();
    }
    void failNextWrite() {
        board.faults().add({.call = Call::kWrite, .path = kHeronUart, .error = EIO});
    }
};

// Tables.

TEST(IspTables, CommandsHaveTheirCodesAndPaddedNames) {
    const std::pair<uint32_t, const char*> rows[] = {{0x00, "CMD_GET               "},
                                                     {0x01, "CMD_GET_VERSION       "},
                                                     {0x02, "CMD_GET_ID            "},
                                                     {0x11, "CMD_READ_MEMORY       "},
                                                     {0x21, "CMD_GO                "},
                                                     {0x31, "CMD_WRITE_MEMORY      "},
                                                     {0x43, "CMD_ERASE             "},
                                                     {0x44, "CMD_EXTENDED_ERASE    "},
                                                     {0x63, "CMD_WRITE_PROTECT     "},
                                                     {0x73, "CMD_WRITE_UNPROTECT   "},
                                                     {0x82, "CMD_READOUT_PROTECT   "},
                                                     {0x92, "CMD_READOUT_UNPROTECT "},
                                                     {0x06, "CMD_GET_PID"}};
    int i = 0;
    for (const auto& [code, name] : rows) {
        EXPECT_EQ(isp_cmd_arr[i].code, code);
        EXPECT_STREQ(isp_cmd_arr[i++].name, name);
    }
    EXPECT_EQ(isp_cmd_arr[i].code, 0xFFU);
    EXPECT_EQ(isp_cmd_arr[i].name, nullptr);
    EXPECT_EQ(sizeof(isp_cmd_arr) / sizeof(isp_cmd_arr[0]), 14U);
    EXPECT_EQ(sizeof(isp_cmd_t), 2 * sizeof(void*));
}

TEST(IspTables, McuTypesHaveTheirNames) {
    EXPECT_THAT(str_mcu_type,
                ElementsAre(StrEq("MCU_UNKNOWN"), StrEq("MCU_GD32F303"), StrEq("MCU_GD32E503"),
                            StrEq("MCU_GD32F470"), StrEq("MCU_STM32H750")));
}

TEST_F(IspBootLoader, DisplayCmdNamesKnownCommandsAtDebugLevel) {
    display_cmd(0x31);
    EXPECT_THAT(said(), IsEmpty());
    setLogLevel("D");
    display_cmd(0x31);
    display_cmd(0x06);
    EXPECT_THAT(said(), ElementsAre("D send cmd [0x31] : CMD_WRITE_MEMORY       \n",
                                    "D send cmd [0x06] : CMD_GET_PID \n"));
}

TEST_F(IspBootLoader, DisplayCmdIsSilentForAnythingElse) {
    setLogLevel("D");
    for (const unsigned code : {0x03U, 0xFFU, 0x131U, 0xFFFFFFFFU}) display_cmd(code);
    EXPECT_THAT(said(), IsEmpty());
}

// Synchronisation.

struct IspSyncRow {
    Bytes answer;
    int result;
    const char* shown;
};
void PrintTo(const IspSyncRow& row, std::ostream* out) { *out << "answer " << row.shown; }
class IspSync : public IspBootLoader, public testing::WithParamInterface<IspSyncRow> {};

TEST_P(IspSync, GivesItsResult) {
    setLogLevel("D");
    mcu.expect({0x7F}, GetParam().answer);
    EXPECT_EQ(ack_startisp(), GetParam().result);
    EXPECT_THAT(said(), ElementsAre("D wait ack_startisp ... \n",
                                    std::string("D ack_startisp: mcu_serial_read ACK data:0x") +
                                        GetParam().shown + "\n"));
}

INSTANTIATE_TEST_SUITE_P(Each, IspSync,
                         testing::Values(IspSyncRow{{0x79}, 0, "79"}, IspSyncRow{{0x1F}, 6, "1f"},
                                         IspSyncRow{{0x00}, 15, "00"}, IspSyncRow{{0x7F}, 15, "7f"},
                                         IspSyncRow{{0xFF}, 15, "ff"}));

TEST_F(IspBootLoader, SilentSynchronisationShowsItsOwnByteAndGives15) {
    setLogLevel("D");
    mcu.expect({0x7F});
    const auto start = board.now();
    EXPECT_EQ(ack_startisp(), 15);
    EXPECT_EQ(board.now() - start, seconds(1));
    EXPECT_THAT(said(), ElementsAre("D wait ack_startisp ... \n", timeOut(),
                                    "D ack_startisp: mcu_serial_read ACK data:0x7f\n"));
}

TEST_F(IspBootLoader, SynchronisationWithoutAPortGives1) {
    setLogLevel("D");
    mcu_serial_close();
    fd = -1;
    EXPECT_EQ(ack_startisp(), 1);
    EXPECT_THAT(said(), ElementsAre("D wait ack_startisp ... \n", "D mcu serial init error. \n"));
}

TEST_F(IspBootLoader, SynchronisationThatCannotBeWrittenStillListens) {
    failNextWrite();
    board.mcuUart().sendToHost({0x79});
    EXPECT_EQ(ack_startisp(), 0);
    EXPECT_THAT(said(), ElementsAre("E mcu_serial_write: write error. \n"));
}

// Commands.

struct IspAnswerRow {
    Bytes bytes;
    int result;
};
void PrintTo(const IspAnswerRow& row, std::ostream* out) { *out << "answer " << hexOf(row.bytes); }
class IspCommand : public IspBootLoader, public testing::WithParamInterface<IspAnswerRow> {};

TEST_P(IspCommand, GoesOutWithItsComplementInOneWriteAndGivesItsResult) {
    setLogLevel("D");
    mcu.expect({0x31, 0xCE}, GetParam().bytes);
    EXPECT_EQ(ack_sendcmd(0x31), GetParam().result);
    EXPECT_THAT(done(true), ElementsAre("open", "send 31 ce"));
    EXPECT_THAT(said(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Each, IspCommand,
                         testing::Values(IspAnswerRow{{0x79}, 0}, IspAnswerRow{{0x1F}, -1},
                                         IspAnswerRow{{0x00}, -2}, IspAnswerRow{{0x7F}, -2}));

TEST_F(IspBootLoader, UnansweredCommandGivesMinus2AfterASecond) {
    mcu.expect({0x11, 0xEE});
    const auto start = board.now();
    EXPECT_EQ(ack_sendcmd(0x11), -2);
    EXPECT_EQ(board.now() - start, seconds(1));
    EXPECT_THAT(said(), ElementsAre(timeOut()));
}

TEST_F(IspBootLoader, ExtendedEraseIsFramedByTwoMessagesAndSentOnce) {
    setLogLevel("D");
    mcu.expect({0x44, 0xBB}, {0x79});
    EXPECT_EQ(ack_sendcmd(0x44), 0);
    EXPECT_THAT(said(), ElementsAre("D ack_sendcmd: CMD_EXTENDED_ERASE start\n",
                                    "D ack_sendcmd: CMD_EXTENDED_ERASE end\n"));
}

TEST_F(IspBootLoader, UnansweredExtendedEraseIsNotSentAgain) {
    setLogLevel("D");
    mcu.expect({0x44, 0xBB});
    EXPECT_EQ(ack_sendcmd(0x44), -2);
    EXPECT_THAT(said(), ElementsAre("D ack_sendcmd: CMD_EXTENDED_ERASE start\n", timeOut(),
                                    "D ack_sendcmd: CMD_EXTENDED_ERASE end\n"));
}

TEST_F(IspBootLoader, CommandWithoutAPortGivesMinus4) {
    setLogLevel("D");
    mcu_serial_close();
    fd = -1;
    EXPECT_EQ(ack_sendcmd(0x00), -4);
    EXPECT_EQ(ack_sendcmd(0x44), -4);
    EXPECT_THAT(said(), ElementsAre("D mcu serial init error. \n",
                                    "D ack_sendcmd: CMD_EXTENDED_ERASE start\n",
                                    "D mcu serial init error. \n"));
}

TEST_F(IspBootLoader, CommandThatCannotBeWrittenStillListens) {
    failNextWrite();
    board.mcuUart().sendToHost({0x79});
    EXPECT_EQ(ack_sendcmd(0x31), 0);
    EXPECT_THAT(said(), ElementsAre("E mcu_serial_write: write error. \n"));
}

// The extended erase.

struct IspEraseRow {
    Bytes pid;  // empty: STM32
    uint32_t addr, size;
    Bytes frame;
    const char* shown;
};
void PrintTo(const IspEraseRow& row, std::ostream* out) { *out << row.shown; }
class IspErase : public IspBootLoader, public testing::WithParamInterface<IspEraseRow> {};

TEST_P(IspErase, SendsItsPagesAndWaitsASecondForTheAnswer) {
    const IspEraseRow& row = GetParam();
    row.pid.empty() ? detectStm32() : detectAs(row.pid);
    setLogLevel("D");
    board.trace().clear();
    mcu.expect(row.frame, {0x79});
    EXPECT_EQ(erasememory_extend(row.addr, row.size), 0);
    EXPECT_THAT(done(true), ElementsAre("send " + hexOf(row.frame), "pause 1000 ms"));
    EXPECT_THAT(said(), ElementsAre(std::string("D CMD_EXTENDED_ERASE: ") + row.shown + "\n",
                                    "D CMD_EXTENDED_ERASE: send erase pages.\n",
                                    "D mcu_serial_read ACK data:0x79\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Each, IspErase,
    testing::Values(
        // 2 KB pages; a partial last page is not erased.
        IspEraseRow{kGd32F303Pid, 0x08000000, 0, {0xFF, 0xFF, 0x00}, "len = 0, page_cnt = 0"},
        IspEraseRow{kGd32F303Pid, 0x08000000, 100, {0xFF, 0xFF, 0x00}, "len = 100, page_cnt = 0"},
        IspEraseRow{kGd32F303Pid,
                    0x08000000,
                    2 * 2048 + 100,
                    {0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x00},
                    "len = 4196, page_cnt = 2"},
        IspEraseRow{kGd32F303Pid,
                    0x08000800,  // pages count from 0, whatever the address
                    2048,
                    {0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x00},
                    "len = 4096, page_cnt = 2"},
        // 4 KB pages; a partial last page is erased.
        IspEraseRow{kGd32F470Pid, 0x08000000, 0, {0, 0, 0, 0, 0}, "len = 0, page_cnt = 1"},
        IspEraseRow{kGd32F470Pid,
                    0x08000000,
                    4096,
                    {0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x00},
                    "len = 4096, page_cnt = 2"},
        IspEraseRow{kGd32F470Pid,
                    0x08000000,
                    10000,
                    {0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x00, 0x02, 0x01},
                    "len = 10000, page_cnt = 3"},
        // Always two pages.
        IspEraseRow{
            {}, 0x08000000, 1, {0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x00}, "len = 1, page_cnt = 2"},
        IspEraseRow{{},
                    0x08000000,
                    0x20000,
                    {0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x00},
                    "len = 131072, page_cnt = 2"}));

// The frame of `count` pages, as in AN3155.
Bytes wholeEraseFrame(unsigned count) {
    Bytes frame = {static_cast<uint8_t>((count - 1) >> 8), static_cast<uint8_t>(count - 1)};
    for (unsigned page = 0; page < count; ++page) {
        frame.push_back(static_cast<uint8_t>(page >> 8));
        frame.push_back(static_cast<uint8_t>(page));
    }
    uint8_t sum = 0;
    for (const uint8_t byte : frame) sum ^= byte;
    frame.push_back(sum);
    return frame;
}

TEST_F(IspBootLoader, LargestCorrectEraseHas126Pages) {
    detectAs(kGd32F303Pid);
    const Bytes frame = wholeEraseFrame(126);
    ASSERT_EQ(frame.size(), 255U);
    mcu.expect(frame, {0x79});
    EXPECT_EQ(erasememory_extend(0x08000000, 126 * 2048), 0);
}

TEST_F(IspBootLoader, EraseOf127PagesSendsNothingButAChecksumOfNothing) {
    detectAs(kGd32F303Pid);
    mcu.expect({0x00}, {0x79});
    EXPECT_EQ(erasememory_extend(0x08000000, 127 * 2048), 0);
}

TEST_F(IspBootLoader, EraseOf128PagesWrapsItsLastPageOverTheStart) {
    detectAs(kGd32F303Pid);
    mcu.expect({0x00, 0x7F, 0x7F}, {0x79});
    EXPECT_EQ(erasememory_extend(0x08000000, 128 * 2048), 0);
}

TEST_F(IspBootLoader, EraseOf130PagesWrapsThreePagesOverTheStart) {
    detectAs(kGd32F303Pid);
    mcu.expect({0x00, 0x7F, 0x00, 0x80, 0x00, 0x81, 0x7E}, {0x79});
    EXPECT_EQ(erasememory_extend(0x08000000, 130 * 2048), 0);
}

// 1 MiB is 384 pages: 256 of 2 KB in the first 512 KB, and 4 KB ones above. The frame's length is
// (2 + 768) mod 256 = 2; page 0x017F, the last one, overwrites bytes 0 and 1.
TEST_F(IspBootLoader, Gd32F303Counts4KbPagesAbove512Kb) {
    detectAs(kGd32F303Pid);
    setLogLevel("D");
    mcu.expect({0x01, 0x7F, 0x7E}, {0x79});
    EXPECT_EQ(erasememory_extend(0x08000000, 0x100000), 0);
    EXPECT_EQ(said().front(), "D CMD_EXTENDED_ERASE: len = 1048576, page_cnt = 384\n");
}

TEST_F(IspBootLoader, Gd32F303CountIsContinuousAt512Kb) {
    detectAs(kGd32F303Pid);
    setLogLevel("D");
    const std::pair<uint32_t, const char*> rows[] = {
        {0x7FFFF, "D CMD_EXTENDED_ERASE: len = 524287, page_cnt = 255\n"},
        {0x80000, "D CMD_EXTENDED_ERASE: len = 524288, page_cnt = 256\n"},
        {0x80FFF, "D CMD_EXTENDED_ERASE: len = 528383, page_cnt = 256\n"},
        {0x81000, "D CMD_EXTENDED_ERASE: len = 528384, page_cnt = 257\n"}};
    for (const auto& [size, text] : rows) {
        board.clearLog();
        mcu.expectPattern(std::vector<int>((2 + 2 * (size < 0x80000   ? 255
                                                     : size < 0x81000 ? 256
                                                                      : 257)) %
                                                   256 +
                                               1,
                                           ScriptedPeer::kAnyByte),
                          {0x79});
        EXPECT_EQ(erasememory_extend(0x08000000, size), 0);
        EXPECT_EQ(said().front(), text);
    }
}

// No count writes outside the frame's buffer (the address sanitizer checks that).
TEST_F(IspBootLoader, EraseOfAnySizeSendsAFrameOfAtMost256Bytes) {
    const uint32_t ends[] = {0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0xFFFFF000, 0x10000000};
    for (const Bytes& pid : {kGd32F303Pid, kGd32F470Pid}) {
        detectAs(pid);
        for (const uint32_t end : ends) {
            board.mcuUart().attach(nullptr);
            const size_t before = board.mcuUart().sentByHost().size();
            EXPECT_EQ(erasememory_extend(0x08000000, end), -1);
            const size_t sent = board.mcuUart().sentByHost().size() - before;
            EXPECT_GE(sent, 1U);
            EXPECT_LE(sent, 256U);
            board.mcuUart().attach(&mcu);
        }
    }
}

TEST_F(IspBootLoader, EraseEndsBelowTheFlashCountAsNegative) {
    detectAs(kGd32F303Pid);
    setLogLevel("D");
    // -4096 bytes are -2 pages: count - 1 is 0xFFFD, the length (2 - 4) mod 256 = 254.
    Bytes frame(254);
    frame[0] = 0xFF;
    frame[1] = 0xFD;
    frame.push_back(0x02);
    mcu.expect(frame, {0x79});
    EXPECT_EQ(erasememory_extend(0x07FFF000, 0), 0);
    EXPECT_EQ(said().front(), "D CMD_EXTENDED_ERASE: len = -4096, page_cnt = -2\n");
}

struct IspEraseAnswerRow {
    Bytes answer;
    const char* shown;
};
void PrintTo(const IspEraseAnswerRow& row, std::ostream* out) { *out << row.shown; }
class IspRefusedErase : public IspBootLoader,
                        public testing::WithParamInterface<IspEraseAnswerRow> {};

TEST_P(IspRefusedErase, GivesMinus1AndSaysSoAtDebugLevel) {
    detectStm32();
    setLogLevel("D");
    mcu.expect({0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x00}, GetParam().answer);
    EXPECT_EQ(erasememory_extend(0x08000000, 512), -1);
    auto lines = said();
    ASSERT_GE(lines.size(), 4U);
    lines.erase(lines.begin(), lines.end() - 2);
    EXPECT_THAT(lines,
                ElementsAre(std::string("D mcu_serial_read ACK data:0x") + GetParam().shown + "\n",
                            "D  erasememory_extend ack error! check it !!! \n"));
}

INSTANTIATE_TEST_SUITE_P(Each, IspRefusedErase,
                         testing::Values(IspEraseAnswerRow{{0x1F}, "1f"},
                                         IspEraseAnswerRow{{0x55}, "55"},
                                         IspEraseAnswerRow{{}, "00"}));

TEST_F(IspBootLoader, EraseThatCannotBeWrittenStillWaitsForTheAnswer) {
    detectStm32();
    failNextWrite();
    const auto start = board.now();
    EXPECT_EQ(erasememory_extend(0x08000000, 512), -1);
    EXPECT_EQ(board.now() - start, seconds(2));
    EXPECT_THAT(said(), ElementsAre("E mcu_serial_write: write error. \n", timeOut()));
}

namespace {

// Runs in a new process, in which no MCU has been detected yet. Prints the bytes sent.
int eraseWithUnknownType() {
    board::Board board;
    ScriptedPeer mcu(board, {115200, 8, 'O', 1});
    mcu.expect({0xFF, 0xFF, 0x00}, {0x79});
    if (mcu_serial_init(kHeronUart, 115200, 8, 1, 'O') != 0) return 2;
    const int result = erasememory_extend(0x08000000, 4096);
    fprintf(stderr, "sent %s\n", hexOf(board.mcuUart().sentByHost()).c_str());
    close(fd);
    return result == 0 && mcu.left() == 0 ? 0 : 3;
}

// Detects a part, then one that does not identify itself: the first one's type is kept.
int eraseAfterAFailedDetection() {
    board::Board board;
    ScriptedPeer mcu(board, {115200, 8, 'O', 1});
    board.properties().set("persist.quil.device.log.level", "I");
    if (mcu_serial_init(kHeronUart, 115200, 8, 1, 'O') != 0) return 2;
    for (const Bytes& pid : {kAnswerNack, kGd32F470Pid, kAnswerNack}) {
        mcu.expect({0x06, 0xF9}, pid);
        if (pid == kAnswerNack) mcu.expect({0x02, 0xFD}, kAnswerNack);
        mcu_type_detect();
        fprintf(stderr, "%s", board.log().back().c_str());
    }
    close(fd);
    return mcu.left() == 0 ? 0 : 3;
}

}  // namespace

TEST(IspFreshDeathTest, UnknownTypeErasesEverything) {
    dieInAFreshProcess();
    EXPECT_EXIT(exit(eraseWithUnknownType()), testing::ExitedWithCode(0), "sent ff ff 00");
}

TEST(IspFreshDeathTest, TypeIsUnknownUntilAnMcuIsDetectedAndStaysThenInForce) {
    dieInAFreshProcess();
    EXPECT_EXIT(exit(eraseAfterAFailedDetection()), testing::ExitedWithCode(0),
                "mcu_type_detect: _mcu_type: MCU_UNKNOWN\n"
                "mcu_type_detect: _mcu_type: MCU_GD32F470\n"
                "mcu_type_detect: _mcu_type: MCU_GD32F470\n");
}

}  // namespace quil::tests
