// The board's own flow is held back before it erases another part than the one that is meant.
#include "tools/quilctl/programming/part_gate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/mcu/mcu_parts.h"

namespace quil::tests {
namespace {

using board::EventKind;
using programmer::Bytes;
using testing::HasSubstr;
using testing::IsEmpty;
using tools::PartGate;

constexpr char kForeignPort[] = "/dev/ttyUSB0";
const Bytes kAskPid = {0x06, 0xF9}, kAskId = {0x02, 0xFD}, kEraseF = {0x44, 0xBB};
const Bytes kF303 = {0x79, 4, 0x33, 0x56, 0x45, 0x46, 0x79}, kH750 = {0x79, 1, 0x04, 0x50, 0x79};
const Bytes kN32Info = {0xAA, 0x55, 0x10, 0, 0, 0, 0, 0, 0, 0, 0xEF};
const Bytes kN32Erase = {0xAA, 0x55, 0x30, 0, 16, 0};

class QuilctlPartGate : public testing::Test {
  protected:
    static PartGate gateFor(const char* chip) {
        return {kForeignPort, *programmer::partNamed(chip)};
    }
    static void see(PartGate& gate, EventKind kind, const Bytes& bytes,
                    const char* port = kForeignPort) {
        gate.see({board::Nanos(0), kind, port, "", bytes});
    }
    // One byte at a time, as the flow reads.
    static void exchange(PartGate& gate, const Bytes& asked, const Bytes& answer) {
        ASSERT_TRUE(gate.passes(asked));
        see(gate, EventKind::kUartTx, asked);
        for (const uint8_t byte : answer) {
            see(gate, EventKind::kUartRx, {byte});
        }
    }
};

TEST_F(QuilctlPartGate, PartThatSaysWhatItShouldIsErased) {
    PartGate gd = gateFor("gd32f303");
    exchange(gd, kAskPid, kF303);
    EXPECT_TRUE(gd.passes(kEraseF));
    PartGate st = gateFor("stm32h750");
    exchange(st, kAskPid, {0x1F});
    exchange(st, kAskId, kH750);
    EXPECT_TRUE(st.passes(kEraseF));
    PartGate n32 = gateFor("n32g45x");
    Bytes info = {0xAA, 0x55, 0x10, 0, 51, 0};
    for (const char letter : std::string("n32g45x")) info.push_back(static_cast<uint8_t>(letter));
    info.resize(60);
    exchange(n32, kN32Info, info);
    EXPECT_TRUE(n32.passes(kN32Erase));
    EXPECT_THAT(gd.refusal() + st.refusal() + n32.refusal(), IsEmpty());
}

TEST_F(QuilctlPartGate, OtherPartIsNamedAndKept) {
    PartGate gate = gateFor("stm32h750");
    exchange(gate, kAskPid, kF303);
    EXPECT_FALSE(gate.passes(kEraseF));
    EXPECT_EQ(gate.refusal(),
              "the MCU behind /dev/ttyUSB0 is part 0x46455633: gd32f303, not a stm32h750: "
              "nothing was erased");
    PartGate reverse = gateFor("gd32f303");
    exchange(reverse, kAskPid, {0x1F});
    exchange(reverse, kAskId, kH750);
    EXPECT_FALSE(reverse.passes(kEraseF));
    EXPECT_THAT(reverse.refusal(), HasSubstr("is part 0x0450: stm32h750, not a gd32f303"));
}

TEST_F(QuilctlPartGate, PartThatIsUnknownOrHasNotSaidWhatItIsIsKept) {
    PartGate unknown = gateFor("gd32f303");
    exchange(unknown, kAskPid, {0x79, 4, 1, 2, 3, 4, 0x79});
    EXPECT_FALSE(unknown.passes(kEraseF));
    EXPECT_THAT(unknown.refusal(), HasSubstr("is part 0x04030201: unknown to this program"));
    PartGate silent = gateFor("stm32h750");
    exchange(silent, kAskPid, {});
    exchange(silent, kAskId, {0x79, 1, 0x04});
    EXPECT_FALSE(silent.passes({{0x43, 0xBC}}));
    EXPECT_THAT(silent.refusal(), HasSubstr("is a part that has not said what it is"));
    PartGate n32 = gateFor("n32g45x");
    EXPECT_FALSE(n32.passes(kN32Erase));
    // Another maker's part with the GD32F303's product number.
    PartGate other = gateFor("gd32f303");
    exchange(other, kAskPid, {0x1F});
    exchange(other, kAskId, {0x79, 1, 0x04, 0x14, 0x79});
    EXPECT_FALSE(other.passes(kEraseF));
}

TEST_F(QuilctlPartGate, WhatOtherPortsCarryIsNoAnswer) {
    PartGate gate = gateFor("gd32f303");
    see(gate, EventKind::kUartTx, kAskPid, "/dev/ttyS3");
    see(gate, EventKind::kUartRx, kF303, "/dev/ttyS3");
    EXPECT_FALSE(gate.passes(kEraseF));
}

}  // namespace
}  // namespace quil::tests
