// A part behind a pseudo terminal: one clock and one queue for all that the line and the part do.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <time.h>

#include <algorithm>
#include <optional>

#include "board/core/temporary_directory.h"
#include "testing/bytes.h"
#include "testing/pty_part.h"

namespace quil::tests {
namespace {

using namespace quil::board;
using std::chrono::microseconds;
using std::chrono::nanoseconds;
using testing::ElementsAre;

constexpr uint8_t kAcknowledge = 0x79;
constexpr nanoseconds kByteAt115200{95486};  // 11 bits

class BoardPtyBridge : public testing::Test {
  protected:
    ~BoardPtyBridge() override {
        if (mPort >= 0) close(mPort);
    }
    void start(PtyBridgeOptions options, speed_t speed = B115200) {
        options.flash = scratch.path() / "flash";
        part.emplace(options);
        mPort = open(part->port().c_str(), O_RDWR | O_NOCTTY);
        ASSERT_GE(mPort, 0);
        set(speed);
    }
    void set(speed_t speed) const {
        termios settings{};
        tcgetattr(mPort, &settings);
        cfmakeraw(&settings);
        cfsetspeed(&settings, speed);
        ASSERT_EQ(tcsetattr(mPort, TCSANOW, &settings), 0);
    }
    void send(const Bytes& bytes) const {
        EXPECT_EQ(write(mPort, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    // So many bytes; fewer if nothing comes for two seconds.
    Bytes receive(size_t count) const {
        Bytes bytes;
        pollfd entry{mPort, POLLIN, 0};
        while (bytes.size() < count && poll(&entry, 1, 2000) > 0) {
            Bytes chunk(count - bytes.size());
            const ssize_t got = read(mPort, chunk.data(), chunk.size());
            if (got <= 0) break;
            bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + got);
        }
        return bytes;
    }
    Bytes exchange(const Bytes& bytes, size_t count) const {
        send(bytes);
        return receive(count);
    }
    void synchronise() const { ASSERT_THAT(exchange({0x7F}, 1), ElementsAre(kAcknowledge)); }
    // Up to the count, whose answer are the data.
    void announceRead() const {
        ASSERT_THAT(exchange({0x11, 0xEE}, 1), ElementsAre(kAcknowledge));
        ASSERT_THAT(exchange({8, 0, 0, 0, 8}, 1), ElementsAre(kAcknowledge));
    }
    nanoseconds clockNow() {
        const nanoseconds now = part->rest().clock();
        part->serve();
        return now;
    }

    const TemporaryDirectory scratch;
    std::optional<PtyPart> part;

  private:
    int mPort = -1;
};

TEST_F(BoardPtyBridge, EachByteTakesElevenBitsAlthoughThePseudoTerminalTellsNoParity) {
    start({});
    synchronise();
    announceRead();
    const nanoseconds before = clockNow();
    EXPECT_EQ(exchange({0xFF, 0x00}, 257).size(), 257U);
    EXPECT_EQ(clockNow() - before, (2 + 257) * kByteAt115200);
}

TEST_F(BoardPtyBridge, BytesOfAnN32TakeTenBitsAtItsSpeed) {
    start({.part = McuKind::kN32G45x}, B9600);
    const nanoseconds before = clockNow();
    EXPECT_EQ(exchange({0xAA, 0x55, 0x01, 0, 0, 0, 0, 0, 0x25, 0x80, 0x5B}, 9).size(), 9U);
    EXPECT_EQ(clockNow() - before, 20 * nanoseconds(1041666) + std::chrono::milliseconds(2));
}

TEST_F(BoardPtyBridge, FlashOperationsTakeTheirTimeOfTheSameClock) {
    start({});
    synchronise();
    ASSERT_THAT(exchange({0x44, 0xBB}, 1), ElementsAre(kAcknowledge));
    const nanoseconds before = clockNow();
    EXPECT_THAT(exchange({0, 1, 0, 0, 0, 1, 0}, 1), ElementsAre(kAcknowledge));
    EXPECT_EQ(clockNow() - before, 8 * kByteAt115200 + 2 * std::chrono::milliseconds(20));
}

class BoardPtyBridgeInTime : public BoardPtyBridge, public testing::WithParamInterface<bool> {};

TEST_P(BoardPtyBridgeInTime, ShortAnswersDoNotOvertakeLongOnes) {
    start({.realtime = GetParam()});
    synchronise();
    // The second command's complement comes while the first one is answered, and is lost.
    EXPECT_THAT(exchange({0x00, 0xFF, 0x01, 0xFE}, 15),
                ElementsAre(kAcknowledge, 11, 0x30, 0x00, 0x01, 0x02, 0x11, 0x21, 0x31, 0x44, 0x63,
                            0x73, 0x82, 0x92, kAcknowledge));
    EXPECT_THAT(exchange({0xFE}, 5), ElementsAre(kAcknowledge, 0x30, 0, 0, kAcknowledge));
}

INSTANTIATE_TEST_SUITE_P(Clocks, BoardPtyBridgeInTime, testing::Bool(),
                         [](const auto& info) { return info.param ? "RealTime" : "ItsOwnTime"; });

nanoseconds realNow() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

// A busy workstation makes a read longer, never shorter: the best of a few counts.
TEST_F(BoardPtyBridge, ReadInRealTimeTakesTheTimeOfTheLine) {
    start({.realtime = true, .fastest = 460800}, B460800);
    synchronise();
    constexpr nanoseconds kLine = 259 * nanoseconds(23871);
    nanoseconds best = std::chrono::seconds(10);
    for (int i = 0; i < 10; ++i) {
        announceRead();
        const nanoseconds start = realNow();
        ASSERT_EQ(exchange({0xFF, 0x00}, 257).size(), 257U);
        best = std::min(best, realNow() - start);
    }
    RecordProperty("per_mille_of_the_line", std::to_string(best * 1000 / kLine));
    EXPECT_GE(best, kLine);
    EXPECT_LT(best, kLine * 3 / 2);
}

TEST_F(BoardPtyBridge, HostAtAnotherSpeedThanThePartHearsOtherBytes) {
    start({});
    synchronise();
    set(B57600);
    EXPECT_THAT(exchange({0x02, 0xFD}, 1), ElementsAre(0x5F)) << "a NACK, badly heard";
    EXPECT_THAT(part->rest().violations(), testing::Contains("framing error on the line"));
}

TEST_F(BoardPtyBridge, FasterLinesThanPublishedAreMeasuredWhenAsked) {
    start({}, B230400);
    send({0x7F});
    part->awaitBytes();
    EXPECT_EQ(part->rest().clock(), nanoseconds(47743)) << "one byte, and no answer";
    part.reset();
    start({.fastest = 230400}, B230400);
    synchronise();
}

TEST_F(BoardPtyBridge, NoiseComesInBothDirections) {
    start({.noise = {.doubled = 1'000'000}});
    EXPECT_THAT(exchange({0x7F}, 2), ElementsAre(kAcknowledge, kAcknowledge));
    // The second of the doubled bytes was half a command, and this one makes it whole.
    EXPECT_THAT(exchange({0x7F}, 2), ElementsAre(0x1F, 0x1F));
}

}  // namespace
}  // namespace quil::tests
