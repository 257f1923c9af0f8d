// The serial line and the microcontroller at its end, through C library calls only.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include "board/board.h"
#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "testing/bytes.h"

namespace {

using namespace quil::board;
using quil::tests::Bytes;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;

// A get of 0x00000102 with the payload 0x01, label 5.
const Bytes kGet = {0x55, 0xBB, 0x00, 0x00, 0x00, 0x01, 0x05, 0x00, 0x17, 0x00, 0x41,
                    0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                    0x02, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x73, 0x01};
// Its answer when nothing was ever set: four zero bytes.
const Bytes kAnswer = {0x55, 0xBB, 0x00, 0x00, 0x00, 0x01, 0x05, 0x00, 0x1A, 0x00, 0x02, 0x01,
                       0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x01,
                       0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x36, 0x01};

int openLine(const char* path = "/dev/ttyS3", speed_t speed = B115200) {
    const int fd = open(path, O_RDWR | O_NOCTTY);
    termios settings{};
    if (fd < 0 || tcgetattr(fd, &settings) != 0) return -1;
    cfmakeraw(&settings);
    cfsetispeed(&settings, speed);
    cfsetospeed(&settings, speed);
    settings.c_cc[VMIN] = 0;
    settings.c_cc[VTIME] = 0;
    return tcsetattr(fd, TCSANOW, &settings) == 0 ? fd : -1;
}

void sendBytes(int fd, const Bytes& bytes) {
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

Bytes receive(int fd) {
    Bytes bytes(8192);
    const ssize_t got = read(fd, bytes.data(), bytes.size());
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return bytes;
}

Bytes changed(Bytes frame, size_t at, uint8_t value) {
    frame[at] = value;
    const size_t body = frame.size() - 2;
    unsigned sum = 0;
    for (size_t i = 0; i < body; ++i) sum += frame[i];
    frame[body] = static_cast<uint8_t>(sum);
    frame[body + 1] = static_cast<uint8_t>(sum >> 8);
    return frame;
}

TEST(BoardUart, ThirtyThreeBytesTakeTheirTenBitsEachAtTheLinesRate) {
    Board board;
    const int fd = openLine();
    sendBytes(fd, kGet);
    EXPECT_EQ(board.mcuUart().bytesOnTheWay(), 33U);
    board.runFor(seconds(1));
    ASSERT_EQ(board.mcu().requests().size(), 1U);
    // A byte is 10 bits: 86,805 ns at 115,200 bit/s.
    EXPECT_EQ(board.mcu().requests()[0].at, nanoseconds(33 * 86805));
    EXPECT_EQ(board.mcuUart().mode(), "8N1");
    EXPECT_EQ(board.mcuUart().baud(), 115200);
    close(fd);
}

TEST(BoardUart, WriteLargerThanTheBufferWaitsForRoom) {
    Board board;
    const int fd = openLine();
    sendBytes(fd, Bytes(5096, 0));
    EXPECT_EQ(board.now(), nanoseconds(1000 * 86805));
    close(fd);
}

TEST(BoardUart, NonBlockingWriteIntoAFullBufferSaysAgain) {
    Board board;
    const int fd = openLine();
    ASSERT_EQ(fcntl(fd, F_SETFL, O_NONBLOCK), 0);
    const Bytes zeros(5000);
    EXPECT_EQ(write(fd, zeros.data(), zeros.size()), 4096);
    EXPECT_EQ(write(fd, zeros.data(), 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    close(fd);
}

TEST(BoardUart, ReadWithNothingThereReturnsAtOnce) {
    Board board;
    const int fd = openLine();
    uint8_t byte = 0;
    EXPECT_EQ(read(fd, &byte, 1), 0);
    EXPECT_EQ(board.now(), Nanos(0));
    close(fd);
}

TEST(BoardUart, WrongSpeedGarblesEveryByte) {
    Board board;
    const int fd = openLine("/dev/ttyS3", B9600);
    sendBytes(fd, kGet);
    board.runFor(seconds(1));
    EXPECT_TRUE(board.mcu().requests().empty());
    EXPECT_THAT(board.violations(), testing::Contains("/dev/ttyS3: framing error on the line"));
    close(fd);
}

TEST(BoardUart, UnpluggedLineFailsToWriteAndReadsAsEnded) {
    Board board;
    const int fd = openLine();
    board.mcuUart().unplug();
    EXPECT_EQ(write(fd, kGet.data(), kGet.size()), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_THAT(receive(fd), ElementsAre());
    pollfd entry{fd, POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, -1), 1);
    EXPECT_EQ(open("/dev/ttyS3", O_RDWR), -1);
    close(fd);
}

TEST(BoardMcu, GetIsAnsweredInTheShapeOfItsRequest) {
    Board board;
    const int fd = openLine();
    sendBytes(fd, kGet);
    board.runFor(seconds(1));
    EXPECT_EQ(receive(fd), kAnswer);
    ASSERT_EQ(board.mcu().requests().size(), 1U);
    EXPECT_EQ(board.mcu().requests()[0].frame, kGet);
    EXPECT_THAT(board.violations(), ElementsAre());
    close(fd);
}

TEST(BoardMcu, SelectWakesWhenTheAnswersFirstByteIsThere) {
    Board board;
    const int fd = openLine();
    sendBytes(fd, kGet);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval limit{5, 0};
    EXPECT_EQ(select(fd + 1, &set, nullptr, nullptr, &limit), 1);
    EXPECT_TRUE(FD_ISSET(fd, &set));
    EXPECT_EQ(board.now(), nanoseconds(34 * 86805) + milliseconds(1));
    close(fd);
}

TEST(BoardMcu, SelectOnASilentLineTimesOut) {
    Board board;
    board.mcu().setSilent(true);
    const int fd = openLine();
    sendBytes(fd, kGet);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval limit{2, 0};
    EXPECT_EQ(select(fd + 1, &set, nullptr, nullptr, &limit), 0);
    EXPECT_EQ(board.now(), seconds(2));
    close(fd);
}

TEST(BoardMcu, NoiseAndACorruptChecksumComeOutOnTheLine) {
    Board board;
    board.mcu().setNoise({0x01}, {0x02});
    board.mcu().setCorruptAnswers(true);
    const int fd = openLine();
    sendBytes(fd, kGet);
    board.runFor(seconds(1));
    Bytes expected = {0x01};
    expected.insert(expected.end(), kAnswer.begin(), kAnswer.end());
    expected.at(1 + 34) ^= 0x01;
    expected.push_back(0x02);
    EXPECT_EQ(receive(fd), expected);
    close(fd);
}

struct BadFrame {
    const char* name;
    Bytes bytes;
    const char* violation;
};
void PrintTo(const BadFrame& frame, std::ostream* out) { *out << frame.name; }

class BoardMcuRefuses : public testing::TestWithParam<BadFrame> {};

TEST_P(BoardMcuRefuses, FrameThatIsNotToTheLetter) {
    Board board;
    const int fd = openLine();
    sendBytes(fd, GetParam().bytes);
    board.runFor(seconds(1));
    EXPECT_THAT(board.mcu().requests(), testing::IsEmpty());
    EXPECT_GE(board.mcu().badFrames(), 1U);
    ASSERT_FALSE(board.violations().empty());
    EXPECT_EQ(board.violations()[0], GetParam().violation);
    close(fd);
}

Bytes wrongSum() {
    Bytes frame = kGet;
    frame.back() ^= 0x80;
    return frame;
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, BoardMcuRefuses,
    testing::Values(BadFrame{"magic", changed(kGet, 1, 0xBC), "mcu: bytes that start no frame"},
                    BadFrame{"reserved", changed(kGet, 2, 1), "mcu: reserved word is not 0"},
                    BadFrame{"fixed", changed(kGet, 5, 2), "mcu: fixed word is not 0x0100"},
                    BadFrame{"short", changed(kGet, 8, 21), "mcu: length 21 is out of range"},
                    BadFrame{"long", changed(kGet, 9, 0x20), "mcu: length 8215 is out of range"},
                    BadFrame{"type", changed(kGet, 10, 0x42), "mcu: frame is no request"},
                    BadFrame{"flags", changed(kGet, 10, 0x51), "mcu: unused flag bits are set"},
                    BadFrame{"reservedByte", changed(kGet, 13, 1), "mcu: reserved byte is not 0"},
                    BadFrame{"zeroWord", changed(kGet, 27, 1),
                             "mcu: word after the command is not 0"},
                    BadFrame{"sum", wrongSum(), "mcu: checksum is wrong"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(BoardMcu, FrameThatPausesTooLongIsDropped) {
    Board board;
    const int fd = openLine();
    sendBytes(fd, {kGet.begin(), kGet.begin() + 20});
    board.runFor(milliseconds(100));
    sendBytes(fd, kGet);
    board.runFor(seconds(1));
    EXPECT_EQ(board.mcu().requests().size(), 1U);
    EXPECT_THAT(board.violations(), ElementsAre("mcu: a frame broke off"));
    close(fd);
}

TEST(BoardMcu, ValuesAndVersionAndPropertiesOutliveThePower) {
    const TemporaryDirectory scratch;
    const std::filesystem::path& dir = scratch.path();
    createBoardDirectory(dir, Product::kKestrel);
    {
        Board board(dir);
        const int fd = openLine("/dev/ttyS1");
        sendBytes(fd, changed(kGet, 10, 0x61));
        board.runFor(seconds(1));
        board.mcuChip().flashImage(makeMcuImage(McuKind::kStm32H750, "V9.9.9", 4096));
        board.properties().set("persist.a", "b=c");
        close(fd);
    }
    EXPECT_EQ(readWholeFile(dir / "mcu/values"), "0x00000102 = 01\n");
    EXPECT_EQ(readWholeFile(dir / "mcu/flash"), makeMcuImage(McuKind::kStm32H750, "V9.9.9", 4096));
    Board board(dir);
    EXPECT_EQ(board.mcuChip().version(), "V9.9.9");
    const int fd = openLine("/dev/ttyS1");
    sendBytes(fd, kGet);
    board.runFor(seconds(1));
    const Bytes answer = receive(fd);
    ASSERT_EQ(answer.size(), 33U);
    EXPECT_EQ(answer[30], 0x01);
    EXPECT_EQ(board.properties().get("persist.a"), "b=c");
    close(fd);
}

}  // namespace
