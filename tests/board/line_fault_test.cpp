// Faults of single bytes on the serial line, in each direction.
#include "tests/board/boot_loader_test.h"

namespace quil::tests {
namespace {

using namespace quil::board;
using testing::ElementsAre;
using testing::IsEmpty;
using Kind = LineFault::Kind;

// The line of a boot loader that answers Get Version with five bytes.
class BoardLineFault : public BoardBootLoaderTest {
  protected:
    void SetUp() override {
        powerOn("gd32f303");
        reset(1);
        ASSERT_THAT(exchange({0x7F}), ElementsAre(kAck));
    }
    void add(const LineFault& fault) { board->mcuUart().addFault(fault); }
    Bytes version() { return exchange({0x01, 0xFE}); }
};

TEST_F(BoardLineFault, CorruptByteHasItsBitsInverted) {
    add({.kind = Kind::kCorrupt, .fromHost = false, .byte = 1, .value = 0x81});
    EXPECT_THAT(version(), ElementsAre(kAck, 0xB1, 0, 0, kAck));
    EXPECT_THAT(version(), ElementsAre(kAck, 0x30, 0, 0, kAck));
    add({.kind = Kind::kCorrupt, .fromHost = true, .byte = 1});
    EXPECT_THAT(version(), ElementsAre(kNack));
    EXPECT_THAT(version(), ElementsAre(kAck, 0x30, 0, 0, kAck));
}

TEST_F(BoardLineFault, LostByteNeverArrives) {
    add({.kind = Kind::kLost, .fromHost = false, .byte = 4});
    EXPECT_THAT(version(), ElementsAre(kAck, 0x30, 0, 0));
    add({.kind = Kind::kLost, .fromHost = true, .byte = 0});
    EXPECT_THAT(version(), IsEmpty());
}

TEST_F(BoardLineFault, ExtraByteArrivesBeforeItsNeighbour) {
    add({.kind = Kind::kExtra, .fromHost = false, .byte = 0, .value = 0x55});
    EXPECT_THAT(version(), ElementsAre(0x55, kAck, 0x30, 0, 0, kAck));
    add({.kind = Kind::kExtra, .fromHost = true, .byte = 1, .value = 0x22});
    EXPECT_THAT(version(), ElementsAre(kNack));
}

TEST_F(BoardLineFault, LateByteHoldsUpThoseBehindIt) {
    add({.kind = Kind::kLate,
         .fromHost = false,
         .byte = 2,
         .delay = std::chrono::milliseconds(100)});
    EXPECT_THAT(version(), ElementsAre(kAck, 0x30));
    EXPECT_THAT(exchange({}, 100000), ElementsAre(0, 0, kAck));
    add({.kind = Kind::kLate,
         .fromHost = true,
         .byte = 1,
         .delay = std::chrono::milliseconds(100)});
    EXPECT_THAT(version(), IsEmpty());
    EXPECT_THAT(exchange({}, 100000), ElementsAre(kAck, 0x30, 0, 0, kAck));
}

TEST_F(BoardLineFault, EachIsTraced) {
    add({.kind = Kind::kLost, .fromHost = true});
    add({.kind = Kind::kCorrupt, .fromHost = false});
    version();
    exchange({0xFF});
    const auto events = board->trace().events(EventKind::kFault);
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].source, "/dev/ttyS3");
    EXPECT_EQ(events[0].text, "byte 1 from the host");
    EXPECT_EQ(events[1].text, "byte 1 to the host");
}

// A byte is a start bit, 8 data bits, a parity bit and a stop bit: 95,486 ns at 115,200 bit/s.
TEST_F(BoardLineFault, WithoutAnyAByteWithParityTakesElevenBitTimes) {
    const Nanos sent = board->now();
    version();
    const auto events = board->trace().events(EventKind::kUartRx);
    EXPECT_EQ(events.back().at - sent, 7 * std::chrono::nanoseconds(95486));
}

}  // namespace
}  // namespace quil::tests
