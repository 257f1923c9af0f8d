// The steps of an N32 part's upgrade, and the failures that end it.
#include "tests/isp/n32_test.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <termios.h>

#include <filesystem>

namespace quil::tests {

using board::Call;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

// 150 bytes are one full block and a last one of 32: 159 and 63 bytes on the wire.
constexpr size_t kSize = 150, kFullFrame = 159, kLastFrame = 63;
const std::vector<int> kAnyFullFrame(kFullFrame, ScriptedPeer::kAnyByte);
const std::vector<int> kAnyLastFrame(kLastFrame, ScriptedPeer::kAnyByte);

// `answer` with another byte at `at`; mendCheck recomputes its check byte.
Bytes changed(Bytes answer, size_t at, uint8_t value, bool mendCheck = true) {
    answer[at] = value;
    if (mendCheck) {
        answer.pop_back();
        answer.push_back(xorOf(answer));
    }
    return answer;
}

}  // namespace

class IspN32 : public IspN32Test {
  protected:
    IspN32() { writeImage(imageOf(kSize)); }

    void expectUpToLast() {
        expectUpToErase();
        mcu.expectPattern(kAnyFullFrame, kN32BlockOk);
    }
    void expectUpToCheck() {
        expectUpToLast();
        mcu.expectPattern(kAnyLastFrame, kN32BlockOk, kLate);
    }
    void expectAll() {
        expectUpToCheck();
        expectCrcCheck(160);
    }
    // Checks that the upgrade ended with this message, and as every upgrade does that has its port.
    void expectEndedBy(const std::string& error) {
        const Lines lines = done();
        const auto exit = static_cast<ptrdiff_t>(kN32Exit.size());
        ASSERT_GE(lines.size(), kN32Exit.size());
        EXPECT_EQ(Lines(lines.end() - exit, lines.end()), kN32Exit);
        EXPECT_FALSE(isOpen(fd));
        EXPECT_THAT(said(), ElementsAre(StartsWith("E set_opt: open /dev/ttyS3 fd = "),
                                        "E n32_program: " + error));
    }
};

// Success.

TEST_F(IspN32, TakesItsStepsWithTheirPauses) {
    expectAll();
    EXPECT_EQ(upgrade(), 0);
    const Lines steps = {"pause 200 ms", "pause 200 ms", "pause 100 ms",
                         "pause 100 ms", "pause 100 ms", "pause 20 ms"};
    EXPECT_THAT(done(), ElementsAreArray(kN32Entry + steps + kN32Exit));
    EXPECT_EQ(fd >= 0, true);  // closed, but kept
}

TEST_F(IspN32, SaysItsStepsAtDebugLevel) {
    setLogLevel("D");
    expectAll();
    EXPECT_EQ(upgrade(), 0);
    EXPECT_THAT(
        said(),
        ElementsAreArray(
            Lines{"E set_opt: open /dev/ttyS3 fd = " + std::to_string(fd) + "\n",
                  "D mcu_enter_isp_mode: ==========> [enter isp]. \n", "D get binfile size: 150\n",
                  "D fread binfile to binbuff . \n", "D handShake: try_times=5\n",
                  "I handShake: ACK ok\n", "D N32_FLASH_DWNLD: DataPacketNum = 2\n",
                  "I write mcu internal flash: [85%]\n", "I n32_program: N32_CRC_CHECK success\n"} +
            kN32SaidLast));
}

TEST_F(IspN32, SaysItsProgressAtInfoLevel) {
    setLogLevel("I");
    expectAll();
    EXPECT_EQ(upgrade(), 0);
    EXPECT_THAT(said(), ElementsAre(StartsWith("E set_opt: open "), "I handShake: ACK ok\n",
                                    "I write mcu internal flash: [85%]\n",
                                    "I n32_program: N32_CRC_CHECK success\n",
                                    "I n32_program: exit isp mode\n"));
}

TEST_F(IspN32, SaysOnlyItsPortAtErrorLevel) {
    expectAll();
    EXPECT_EQ(upgrade(), 0);
    EXPECT_THAT(said(),
                ElementsAre("E set_opt: open /dev/ttyS3 fd = " + std::to_string(fd) + "\n"));
}

TEST_F(IspN32, PrintsItsDiagnosticsOnStandardOutput) {
    expectAll();
    EXPECT_EQ(upgrade(), 0);
    EXPECT_EQ(printed,
              "get info ok \n"
              "N32_FLASH_DWNLD  0 2 \n"
              "ack  data: aa 55 31 00 00 00 a0 00 6e\n");
}

TEST_F(IspN32, ProgressGoesWithTheFullBlocks) {
    setLogLevel("I");
    writeImage(imageOf(512));
    expectUpToErase();
    for (int block = 0; block < 3; ++block) mcu.expectPattern(kAnyFullFrame, kN32BlockOk);
    expectCrcCheck(512);
    EXPECT_EQ(upgrade(), 0);
    const Lines lines = said();
    EXPECT_THAT(
        Lines(lines.begin() + 2, lines.begin() + 5),
        ElementsAre("I write mcu internal flash: [25%]\n", "I write mcu internal flash: [50%]\n",
                    "I write mcu internal flash: [75%]\n"));
    EXPECT_EQ(
        printed,
        "get info ok \nN32_FLASH_DWNLD  0 4 \nN32_FLASH_DWNLD  1 4 \nN32_FLASH_DWNLD  2 4 \n");
}

// The port.

TEST_F(IspN32, PortIsRawAt9600With8N1AndReadsThatWait3Seconds) {
    {
        const int port = open(kHeronUart, O_RDWR);
        termios settings = {};
        ASSERT_EQ(tcgetattr(port, &settings), 0);
        settings.c_cflag = B115200 | CS7 | PARENB | CSTOPB | HUPCL | CRTSCTS;
        settings.c_iflag = 0xFFFF;
        settings.c_cc[VMIN] = 9;
        ASSERT_EQ(tcsetattr(port, TCSANOW, &settings), 0);
        close(port);
    }
    expectAll();
    EXPECT_EQ(upgrade(), 0);
    const int port = open(kHeronUart, O_RDWR);
    termios settings = {};
    ASSERT_EQ(tcgetattr(port, &settings), 0);
    close(port);
    EXPECT_EQ(settings.c_iflag, 0U);
    EXPECT_EQ(settings.c_oflag, 0U);
    EXPECT_EQ(settings.c_lflag, 0U);
    EXPECT_EQ(settings.c_cflag, static_cast<tcflag_t>(B9600 | CS8 | CREAD | CLOCAL));
    EXPECT_EQ(cfgetispeed(&settings), static_cast<speed_t>(B9600));
    for (int i = 0; i < NCCS; ++i) EXPECT_EQ(settings.c_cc[i], i == VTIME ? 30 : 0) << i;
}

TEST_F(IspN32, PortThatCannotBeOpenedEndsItBeforeTheMcuIsTouched) {
    setLogLevel("D");
    board.trace().clear();
    EXPECT_EQ(n32_uart_isp_upgrade(kImagePath, "/dev/ttyS99"), -1);
    EXPECT_EQ(fd, -1);
    EXPECT_THAT(said(), ElementsAre("E set_opt: Open serial port /dev/ttyS99 failed.\n"));
    EXPECT_THAT(done(), IsEmpty());
    EXPECT_EQ(n32_uart_isp_upgrade(kImagePath, nullptr), -1);
}

TEST_F(IspN32, PortWithoutAttributesIsSetAllTheSame) {
    board.faults().add({.call = Call::kTcgetattr, .path = kHeronUart, .error = EIO});
    expectAll();
    EXPECT_EQ(upgrade(), 0);
    EXPECT_THAT(said(),
                ElementsAre(StartsWith("E set_opt: open "), "E set_opt: tcgetattr failed\n"));
}

TEST_F(IspN32, PortThatCannotBeSetIsUsedAsItIs) {
    board.faults().add({.call = Call::kTcsetattr, .path = kHeronUart, .error = EIO});
    expectAll();
    EXPECT_EQ(upgrade(), 0);
    EXPECT_THAT(said(),
                ElementsAre(StartsWith("E set_opt: open "), "E set_opt: tcsetattr failed\n"));
}

TEST_F(IspN32, PortThatCannotBeSetWaitsForASilentMcuNoLongerThanOneThatCan) {
    for (const bool canBeSet : {true, false}) {
        if (!canBeSet) {
            board.faults().add({.call = Call::kTcsetattr, .path = kHeronUart, .error = EIO});
        }
        for (int attempt = 0; attempt < 5; ++attempt) mcu.expect(kN32HandShake);
        const auto start = board.now();
        EXPECT_EQ(upgrade(), 255);
        // Entry, five times the pause and the wait, exit.
        const std::chrono::milliseconds expected(800 + 5 * (200 + 3000) + 40);
        EXPECT_EQ(board.now() - start, expected) << canBeSet;
    }
}

// The image.

TEST_F(IspN32, ImageWithoutMemoryEndsItWithMinus1AfterTheMcuIsReset) {
    setLogLevel("D");
    board.faults().add({.call = Call::kMalloc});
    EXPECT_EQ(upgrade(), -1);
    EXPECT_THAT(done(), ElementsAreArray(kN32Entry + kN32Exit));
    const Lines lines = said();
    EXPECT_THAT(
        Lines(lines.begin() + 2, lines.end()),
        ElementsAreArray(Lines{"D get binfile size: 150\n", "E n32_program: malloc failed. \n"} +
                         kN32SaidLast));
}

TEST_F(IspN32, ImageOf3GibHasNoMemory) {
    if (!writeHugeImage()) GTEST_SKIP() << "32-bit file sizes";
    EXPECT_EQ(upgrade(), -1);
    expectEndedBy("malloc failed. \n");
}

// The handshake.

TEST_F(IspN32, FiveUnansweredHandshakesEndIt) {
    setLogLevel("D");
    for (int i = 0; i < 5; ++i) mcu.expect(kN32HandShake);
    const auto start = board.now();
    EXPECT_EQ(upgrade(), 255);
    EXPECT_EQ(board.now() - start, milliseconds(800 + 5 * (200 + 3000) + 40));
    Lines expected;
    for (const char attempts : {'5', '4', '3', '2', '1'}) {
        expected.push_back(std::string("D handShake: try_times=") + attempts + "\n");
        for (char at = '0'; at <= '8'; ++at) {
            expected.push_back(std::string("D handShake: ack recvBuf[") + at + "] = 00\n");
        }
    }
    expected.push_back("E n32_program: handShake error\n");
    const Lines lines = said();
    EXPECT_THAT(Lines(lines.begin() + 4, lines.end()), ElementsAreArray(expected + kN32SaidLast));
    Lines pauses(5, "pause 200 ms");
    EXPECT_THAT(done(), ElementsAreArray(kN32Entry + pauses + kN32Exit));
}

TEST_F(IspN32, FailedHandshakeShowsTheFirstNineBytesOfItsAnswer) {
    setLogLevel("D");
    const Bytes refused = changed(kN32HandShakeOk, 7, 0x01);
    for (int i = 0; i < 5; ++i) mcu.expect(kN32HandShake, refused);
    EXPECT_EQ(upgrade(), 255);
    const Lines lines = said();
    EXPECT_THAT(
        Lines(lines.begin() + 4, lines.begin() + 14),
        ElementsAre("D handShake: try_times=5\n", "D handShake: ack recvBuf[0] = aa\n",
                    "D handShake: ack recvBuf[1] = 55\n", "D handShake: ack recvBuf[2] = 01\n",
                    "D handShake: ack recvBuf[3] = 00\n", "D handShake: ack recvBuf[4] = 00\n",
                    "D handShake: ack recvBuf[5] = 00\n", "D handShake: ack recvBuf[6] = a0\n",
                    "D handShake: ack recvBuf[7] = 01\n", "D handShake: ack recvBuf[8] = 5f\n"));
}

TEST_F(IspN32, FifthHandshakeIsEarlyEnough) {
    for (int i = 0; i < 4; ++i) mcu.expect(kN32HandShake, {0x00, 0xFF});
    expectAll();
    EXPECT_EQ(upgrade(), 0);
}

struct IspN32AnswerRow {
    const char* name;
    Bytes answer;
};
void PrintTo(const IspN32AnswerRow& row, std::ostream* out) { *out << row.name; }
std::string nameOfRow(const testing::TestParamInfo<IspN32AnswerRow>& info) {
    return info.param.name;
}

class IspN32GoodHandshake : public IspN32, public testing::WithParamInterface<IspN32AnswerRow> {};

TEST_P(IspN32GoodHandshake, IsAccepted) {
    mcu.expect(kN32HandShake, GetParam().answer);
    mcu.expect(kN32GetInfo, n32InfoOk());
    mcu.expect(kN32Erase, kN32EraseOk);
    mcu.expectPattern(kAnyFullFrame, kN32BlockOk);
    mcu.expectPattern(kAnyLastFrame, kN32BlockOk, kLate);
    expectCrcCheck(160);
    EXPECT_EQ(upgrade(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Each, IspN32GoodHandshake,
    testing::Values(IspN32AnswerRow{"WithOtherContents", changed(kN32HandShakeOk, 4, 0x77)},
                    IspN32AnswerRow{"AfterAStrayByte", Bytes{0x00} + kN32HandShakeOk},
                    IspN32AnswerRow{"AfterAStrayFirstByteOfAnAnswer",
                                    Bytes{0xAA} + kN32HandShakeOk},
                    IspN32AnswerRow{"BeforeAStrayByte", kN32HandShakeOk + Bytes{0x55}}),
    nameOfRow);

class IspN32BadHandshake : public IspN32, public testing::WithParamInterface<IspN32AnswerRow> {};

TEST_P(IspN32BadHandshake, IsRefusedFiveTimes) {
    for (int i = 0; i < 5; ++i) mcu.expect(kN32HandShake, GetParam().answer);
    EXPECT_EQ(upgrade(), 255);
    expectEndedBy("handShake error\n");
}

INSTANTIATE_TEST_SUITE_P(
    Each, IspN32BadHandshake,
    testing::Values(IspN32AnswerRow{"OtherStart", changed(kN32HandShakeOk, 1, 0x56)},
                    IspN32AnswerRow{"OtherStatus", changed(kN32HandShakeOk, 6, 0xA1)},
                    IspN32AnswerRow{"OtherSecondStatus", changed(kN32HandShakeOk, 7, 0x01)},
                    IspN32AnswerRow{"WrongCheck", changed(kN32HandShakeOk, 8, 0x5F, false)},
                    IspN32AnswerRow{"WithoutItsCheck", part(kN32HandShakeOk, 0, 8)},
                    IspN32AnswerRow{"OnlyItsStart", {0xAA, 0x55}},
                    IspN32AnswerRow{"OneByte", {0xAA}}),
    nameOfRow);

// A read takes ten of the eleven bytes; the last one becomes the start of the next answer.
TEST_F(IspN32, HandshakeAfterTwoStrayBytesIsNotFound) {
    for (int i = 0; i < 5; ++i) mcu.expect(kN32HandShake, Bytes{0x00, 0x00} + kN32HandShakeOk);
    EXPECT_EQ(upgrade(), 255);
}

// The check byte, which would be 0, is missing: the answer is not accepted.
TEST_F(IspN32, BytesThatNeverCameAreNoPartOfAnAnswer) {
    const Bytes cut = {0xAA, 0x55, 0x5F, 0x00, 0x00, 0x00, 0xA0, 0x00};
    ASSERT_EQ(xorOf(cut), 0x00);
    for (int i = 0; i < 5; ++i) mcu.expect(kN32HandShake, cut);
    EXPECT_EQ(upgrade(), 255);
}

// Get info.

class IspN32BadInfo : public IspN32, public testing::WithParamInterface<IspN32AnswerRow> {};

TEST_P(IspN32BadInfo, EndsIt) {
    mcu.expect(kN32HandShake, kN32HandShakeOk);
    mcu.expect(kN32GetInfo, GetParam().answer);
    EXPECT_EQ(upgrade(), 255);
    expectEndedBy("N32_Get_info error\n");
    EXPECT_EQ(printed, "");
}

INSTANTIATE_TEST_SUITE_P(
    Each, IspN32BadInfo,
    testing::Values(IspN32AnswerRow{"Silence", {}},
                    IspN32AnswerRow{"OtherStart", changed(n32InfoOk(), 0, 0xAB)},
                    IspN32AnswerRow{"OtherStatus", changed(n32InfoOk(), 57, 0xA1)},
                    IspN32AnswerRow{"OtherSecondStatus", changed(n32InfoOk(), 58, 0x01)},
                    IspN32AnswerRow{"WrongCheck", changed(n32InfoOk(), 59, 0x00, false)},
                    IspN32AnswerRow{"ShortAnswer", kN32HandShakeOk},
                    IspN32AnswerRow{"WithoutItsCheck", part(n32InfoOk(), 0, 59)},
                    IspN32AnswerRow{"AfterTwoStrayBytes", Bytes{0x00, 0x00} + n32InfoOk()}),
    nameOfRow);

TEST_F(IspN32, InfoAfterAStrayByteIsFound) {
    mcu.expect(kN32HandShake, kN32HandShakeOk);
    mcu.expect(kN32GetInfo, Bytes{0x00} + n32InfoOk());
    mcu.expect(kN32Erase, kN32EraseOk);
    mcu.expectPattern(kAnyFullFrame, kN32BlockOk);
    mcu.expectPattern(kAnyLastFrame, kN32BlockOk, kLate);
    expectCrcCheck(160);
    EXPECT_EQ(upgrade(), 0);
}

// Erase.

class IspN32BadErase : public IspN32, public testing::WithParamInterface<IspN32AnswerRow> {};

TEST_P(IspN32BadErase, EndsIt) {
    expectUpToInfo();
    mcu.expect(kN32Erase, GetParam().answer);
    EXPECT_EQ(upgrade(), 255);
    expectEndedBy("N32_FLASH_ERASE error\n");
    EXPECT_EQ(printed, "get info ok \n");
}

INSTANTIATE_TEST_SUITE_P(
    Each, IspN32BadErase,
    testing::Values(IspN32AnswerRow{"SilenceIsNotTheLastAnswer", {}},
                    IspN32AnswerRow{"OtherStart", changed(kN32EraseOk, 0, 0x55)},
                    IspN32AnswerRow{"OtherStatus", changed(kN32EraseOk, 6, 0xA1)},
                    IspN32AnswerRow{"OtherSecondStatus", changed(kN32EraseOk, 7, 0xA0)},
                    IspN32AnswerRow{"WrongCheck", changed(kN32EraseOk, 8, 0x90, false)},
                    IspN32AnswerRow{"ShortAnswer", part(kN32EraseOk, 0, 8)},
                    IspN32AnswerRow{"AfterAStrayByte", Bytes{0x00} + kN32EraseOk}),
    nameOfRow);

TEST_F(IspN32, EraseMayTakeUpTo3SecondsAfterThePause) {
    expectUpToInfo();
    mcu.expect(kN32Erase, kN32EraseOk, milliseconds(3000));
    mcu.expectPattern(kAnyFullFrame, kN32BlockOk);
    mcu.expectPattern(kAnyLastFrame, kN32BlockOk, kLate);
    expectCrcCheck(160);
    EXPECT_EQ(upgrade(), 0);
}

TEST_F(IspN32, HandledSignalsDuringTheEraseTakeNothingFromItsTime) {
    expectUpToInfo();
    mcu.expect(kN32Erase, kN32EraseOk, milliseconds(3000));
    for (const Call call : {Call::kPoll, Call::kRead}) {
        board.faults().add({.call = call,
                            .path = kHeronUart,
                            .error = EINTR,
                            .after = 2,
                            .takes = milliseconds(20)});
    }
    mcu.expectPattern(kAnyFullFrame, kN32BlockOk);
    mcu.expectPattern(kAnyLastFrame, kN32BlockOk, kLate);
    expectCrcCheck(160);
    EXPECT_EQ(upgrade(), 0);
}

TEST_F(IspN32, SignalsAddNothingToTheWaitForASilentMcu) {
    for (int attempt = 0; attempt < 5; ++attempt) mcu.expect(kN32HandShake);
    board.faults().add({.call = Call::kPoll,
                        .path = kHeronUart,
                        .error = EINTR,
                        .times = -1,
                        .takes = milliseconds(7)});
    const auto start = board.now();
    EXPECT_EQ(upgrade(), 255);
    // 429 signals, one every 7 ms, last 3003 ms.
    EXPECT_EQ(board.now() - start, milliseconds(800 + 5 * (200 + 3003) + 40));
}

TEST_F(IspN32, PortMayHaveAnyDescriptor) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < rlim_t{2} * FD_SETSIZE) GTEST_SKIP() << "few descriptors";
    const rlimit raised = {rlim_t{2} * FD_SETSIZE, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &raised);
    std::vector<int> taken;
    do {
        taken.push_back(dup(STDERR_FILENO));
    } while (taken.back() >= 0 && taken.back() < FD_SETSIZE);
    expectAll();
    EXPECT_EQ(upgrade(), 0);
    EXPECT_GT(fd, FD_SETSIZE);
    for (const int number : taken) close(number);
    setrlimit(RLIMIT_NOFILE, &limit);
}

// Download.

class IspN32BadBlock : public IspN32, public testing::WithParamInterface<IspN32AnswerRow> {};

TEST_P(IspN32BadBlock, EndsItWithoutAnotherTry) {
    expectUpToErase();
    mcu.expectPattern(kAnyFullFrame, GetParam().answer);
    EXPECT_EQ(upgrade(), 255);
    expectEndedBy("N32_FLASH_DWNLD error\n");
    EXPECT_THAT(printed, MatchesRegex("get info ok \nfunc N32_FLASH_DWNLD,line [0-9]+\n"));
}

TEST_P(IspN32BadBlock, EndsItAlsoAsTheLastOne) {
    expectUpToLast();
    mcu.expectPattern(kAnyLastFrame, GetParam().answer, kLate);
    EXPECT_EQ(upgrade(), 255);
    expectEndedBy("N32_FLASH_DWNLD error\n");
    EXPECT_THAT(printed, MatchesRegex("get info ok \nN32_FLASH_DWNLD  0 2 \n"
                                      "ack  data:( [0-9a-f][0-9a-f])+\n"
                                      "func N32_FLASH_DWNLD,line [0-9]+\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Each, IspN32BadBlock,
    testing::Values(IspN32AnswerRow{"SilenceIsNotTheLastAnswer", {}},
                    IspN32AnswerRow{"OtherStart", changed(kN32BlockOk, 0, 0x55)},
                    IspN32AnswerRow{"OtherStatus", changed(kN32BlockOk, 6, 0xA1)},
                    IspN32AnswerRow{"OtherSecondStatus", changed(kN32BlockOk, 7, 0xA0)},
                    IspN32AnswerRow{"WrongCheck", changed(kN32BlockOk, 8, 0x91, false)},
                    IspN32AnswerRow{"ShortAnswer", part(kN32BlockOk, 0, 8)},
                    IspN32AnswerRow{"AfterAStrayByte", Bytes{0x00} + kN32BlockOk}),
    nameOfRow);

TEST_F(IspN32, SilenceAfterTheLastBlockIsPrintedAsZeros) {
    expectUpToLast();
    mcu.expectPattern(kAnyLastFrame);
    EXPECT_EQ(upgrade(), 255);
    EXPECT_THAT(printed, testing::HasSubstr("ack  data: 00 00 00 00 00 00 00 00 00\n"));
}

// 63 bytes take 66 ms on the wire: an immediate answer arrives before the pause of 100 ms ends.
TEST_F(IspN32, AnswerDuringThePauseIsDropped) {
    expectUpToLast();
    mcu.expectPattern(kAnyLastFrame, kN32BlockOk);
    EXPECT_EQ(upgrade(), 255);
    expectEndedBy("N32_FLASH_DWNLD error\n");
}

TEST_F(IspN32, WriteThatFailsIsLoggedAndTheAnswerAwaited) {
    expectUpToInfo();
    board.faults().add({.call = Call::kWrite, .path = kHeronUart, .error = EIO, .after = 2});
    EXPECT_EQ(upgrade(), 255);
    EXPECT_THAT(said(),
                ElementsAre(StartsWith("E set_opt: open "), "E mcu_serial_write: write error. \n",
                            "E n32_program: N32_FLASH_ERASE error\n"));
}

TEST_F(IspN32, PortThatIsUnpluggedEndsItAtTheNextAnswer) {
    expectUpToErase();
    board.faults().add(
        {.call = Call::kRead, .path = kHeronUart, .error = EIO, .after = 3, .times = -1});
    mcu.expectPattern(kAnyFullFrame, kN32BlockOk);
    EXPECT_EQ(upgrade(), 255);
    expectEndedBy("N32_FLASH_DWNLD error\n");
    board.runFor(milliseconds(500));  // the block is still being sent
}

// The CRC check.

class IspN32Check : public IspN32, public testing::WithParamInterface<IspN32AnswerRow> {};

TEST_P(IspN32Check, IsPassedByTheFirstTwoBytesOfItsAnswer) {
    expectUpToCheck();
    expectCrcCheck(160, GetParam().answer);
    EXPECT_EQ(upgrade(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Each, IspN32Check,
    testing::Values(IspN32AnswerRow{"WithAMismatchReported", changed(kN32CrcOk, 7, 0x01)},
                    IspN32AnswerRow{"WithAWrongCheckByte", changed(kN32CrcOk, 8, 0x00, false)},
                    IspN32AnswerRow{"WithNothingElse", {0xAA, 0x55}}),
    nameOfRow);

class IspN32BadCheck : public IspN32, public testing::WithParamInterface<IspN32AnswerRow> {};

TEST_P(IspN32BadCheck, EndsIt) {
    expectUpToCheck();
    expectCrcCheck(160, GetParam().answer);
    EXPECT_EQ(upgrade(), 255);
    expectEndedBy("N32_CRC_CHECK error\n");
}

INSTANTIATE_TEST_SUITE_P(Each, IspN32BadCheck,
                         testing::Values(IspN32AnswerRow{"SilenceIsNotTheLastAnswer", {}},
                                         IspN32AnswerRow{"OtherStart", changed(kN32CrcOk, 1, 0xAA)},
                                         IspN32AnswerRow{"OneByte", {0xAA}},
                                         IspN32AnswerRow{"AfterAStrayByte",
                                                         Bytes{0x00} + kN32CrcOk}),
                         nameOfRow);

}  // namespace quil::tests
