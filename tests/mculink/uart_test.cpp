#include "mculink/uart.h"

#include <errno.h>
#include <fcntl.h>
#include <termios.h>

#include "isp/serial_port.h"
#include "testing/library_test.h"

namespace quil::tests {

using board::Call;
using testing::IsEmpty;

class UartPort : public LibraryTest {
  protected:
    UartPort() : mPort(sdk_uart_open(kHeronUart)) { EXPECT_GE(mPort, 0); }
    ~UartPort() override { sdk_uart_close(mPort); }

    termios settings() const {
        termios port = {};
        EXPECT_EQ(tcgetattr(mPort, &port), 0);
        return port;
    }
    void change(const std::function<void(termios&)>& edit) const {
        termios port = settings();
        edit(port);
        EXPECT_EQ(tcsetattr(mPort, TCSANOW, &port), 0);
    }

    int mPort;
};

TEST_F(UartPort, SlotForOtherComponentsStartsAtMinus1) { EXPECT_EQ(fd, -1); }

TEST_F(UartPort, OpenOfAMissingDeviceOrNullGivesMinus1) {
    EXPECT_EQ(sdk_uart_open("/dev/ttyS99"), -1);
    EXPECT_EQ(sdk_uart_open(nullptr), -1);
}

TEST_F(UartPort, OpenPortIsBlockingAgain) { EXPECT_EQ(fcntl(mPort, F_GETFL) & O_NONBLOCK, 0); }

TEST_F(UartPort, OpenWhoseSwitchToBlockingFailsLeavesTheDescriptorOpen) {
    board.faults().add({.call = Call::kFcntl, .error = EIO});
    EXPECT_EQ(sdk_uart_open(kHeronUart), -1);
    const auto events = board.trace().events();
    EXPECT_TRUE(std::none_of(events.begin(), events.end(), [](const board::Event& event) {
        return event.kind == board::EventKind::kClose;
    }));
}

struct Rate {
    int baud;
    speed_t speed;
};
void PrintTo(const Rate& rate, std::ostream* out) { *out << rate.baud << " baud"; }
class UartRate : public UartPort, public testing::WithParamInterface<Rate> {};

TEST_P(UartRate, OfTheTableIsSetInBothDirections) {
    EXPECT_EQ(sdk_uart_cfg(mPort, GetParam().baud, 0, 8, 1, 'N'), 0);
    const termios port = settings();
    EXPECT_EQ(cfgetispeed(&port), GetParam().speed);
    EXPECT_EQ(cfgetospeed(&port), GetParam().speed);
}

INSTANTIATE_TEST_SUITE_P(Each, UartRate,
                         testing::Values(Rate{300, B300}, Rate{1200, B1200}, Rate{2400, B2400},
                                         Rate{4800, B4800}, Rate{9600, B9600}, Rate{19200, B19200},
                                         Rate{57600, B57600}, Rate{115200, B115200},
                                         Rate{1000000, B1000000}, Rate{4000000, B4000000}));

TEST_F(UartPort, RateThatTheTableLacksSucceedsAndLeavesTheSpeedAsItWas) {
    ASSERT_EQ(sdk_uart_cfg(mPort, 57600, 0, 8, 1, 'N'), 0);
    for (const int baud : {38400, 230400, 0, -1}) {
        EXPECT_EQ(sdk_uart_cfg(mPort, baud, 0, 8, 1, 'N'), 0);
        const termios port = settings();
        EXPECT_EQ(cfgetospeed(&port), static_cast<speed_t>(B57600));
    }
}

TEST_F(UartPort, FlowOfZeroClearsHardwareFlowControl) {
    change([](termios& port) { port.c_cflag |= CRTSCTS; });
    ASSERT_EQ(sdk_uart_cfg(mPort, 9600, 0, 8, 1, 'N'), 0);
    EXPECT_EQ(settings().c_cflag & CRTSCTS, 0U);
    EXPECT_EQ(settings().c_cflag & (CLOCAL | CREAD), static_cast<tcflag_t>(CLOCAL | CREAD));
}

TEST_F(UartPort, FlowOfOneSetsHardwareFlowControl) {
    ASSERT_EQ(sdk_uart_cfg(mPort, 9600, 1, 8, 1, 'N'), 0);
    EXPECT_EQ(settings().c_cflag & CRTSCTS, static_cast<tcflag_t>(CRTSCTS));
}

TEST_F(UartPort, FlowOfTwoSetsTheLiteralBitsAlthoughTheyChangeTheSpeed) {
    ASSERT_EQ(sdk_uart_cfg(mPort, 9600, 2, 8, 1, 'N'), 0);
    EXPECT_EQ(settings().c_cflag & 0x1C80U, 0x1C80U);
}

TEST_F(UartPort, FlowOfTwoAndAnyOtherLeaveHardwareFlowControlAsItWas) {
    for (const int flow : {2, 3, -1}) {
        change([](termios& port) { port.c_cflag |= CRTSCTS; });
        ASSERT_EQ(sdk_uart_cfg(mPort, 9600, flow, 8, 1, 'N'), 0);
        EXPECT_NE(settings().c_cflag & CRTSCTS, 0U) << flow;
        change([](termios& port) { port.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS); });
        ASSERT_EQ(sdk_uart_cfg(mPort, 9600, flow, 8, 1, 'N'), 0);
        EXPECT_EQ(settings().c_cflag & CRTSCTS, 0U) << flow;
    }
}

TEST_F(UartPort, DataBitsFrom5To8AreSet) {
    const tcflag_t sizes[] = {CS5, CS6, CS7, CS8};
    for (int bits = 5; bits <= 8; ++bits) {
        ASSERT_EQ(sdk_uart_cfg(mPort, 9600, 0, bits, 1, 'N'), 0);
        EXPECT_EQ(settings().c_cflag & CSIZE, sizes[bits - 5]);
    }
}

TEST_F(UartPort, ParityLettersSetTheirFlagsInEitherCase) {
    const struct {
        char letter;
        tcflag_t flags;
    } rows[] = {{'E', PARENB},
                {'e', PARENB},
                {'O', PARENB | PARODD},
                {'o', PARENB | PARODD},
                {'N', 0},
                {'n', 0},
                {'S', 0},
                {'s', 0}};
    for (const auto& row : rows) {
        change([](termios& port) { port.c_cflag &= ~static_cast<tcflag_t>(PARENB | PARODD); });
        ASSERT_EQ(sdk_uart_cfg(mPort, 9600, 0, 8, 1, row.letter), 0) << row.letter;
        EXPECT_EQ(settings().c_cflag & (PARENB | PARODD), row.flags) << row.letter;
        EXPECT_EQ(settings().c_iflag & INPCK, 0U) << "input parity is never checked";
    }
}

TEST_F(UartPort, ParityOfAPortThatHadOddParityIsTheOneAskedFor) {
    const struct {
        char letter;
        tcflag_t flags;  // without PARENB the other flag means nothing, and stays
    } rows[] = {{'E', PARENB}, {'O', PARENB | PARODD}, {'N', PARODD}, {'S', PARODD}};
    for (const auto& row : rows) {
        change([](termios& port) { port.c_cflag |= PARENB | PARODD; });
        ASSERT_EQ(sdk_uart_cfg(mPort, 9600, 0, 8, 1, row.letter), 0) << row.letter;
        EXPECT_EQ(settings().c_cflag & (PARENB | PARODD), row.flags) << row.letter;
    }
}

TEST_F(UartPort, StopBitsOf2SetCstopbAnd1ClearsIt) {
    ASSERT_EQ(sdk_uart_cfg(mPort, 9600, 0, 8, 2, 'S'), 0);
    EXPECT_NE(settings().c_cflag & CSTOPB, 0U);
    ASSERT_EQ(sdk_uart_cfg(mPort, 9600, 0, 8, 1, 'N'), 0);
    EXPECT_EQ(settings().c_cflag & CSTOPB, 0U);
}

TEST_F(UartPort, RawModeClearsExactlyItsBitsAndMakesReadsReturnAtOnce) {
    change([](termios& port) {
        port.c_iflag = BRKINT | INPCK | ISTRIP | ICRNL | IXON | IXOFF | IGNBRK;
        port.c_oflag = OPOST | ONLCR;
        port.c_lflag = ISIG | ICANON | ECHO | ECHOE | ECHOK;
        port.c_cc[VTIME] = 9;
        port.c_cc[VMIN] = 9;
    });
    ASSERT_EQ(sdk_uart_cfg(mPort, 9600, 0, 8, 1, 'N'), 0);
    const termios port = settings();
    EXPECT_EQ(port.c_iflag, static_cast<tcflag_t>(IXOFF | IGNBRK));
    EXPECT_EQ(port.c_oflag, static_cast<tcflag_t>(ONLCR));
    EXPECT_EQ(port.c_lflag, static_cast<tcflag_t>(ECHOK));
    EXPECT_EQ(port.c_cc[VTIME], 0);
    EXPECT_EQ(port.c_cc[VMIN], 0);
}

struct RefusedSettings {
    int databits, stopbits, parity;
};
void PrintTo(const RefusedSettings& row, std::ostream* out) {
    *out << row.databits << " data bits, " << row.stopbits << " stop bits, parity " << row.parity;
}
class UartRefusal : public UartPort, public testing::WithParamInterface<RefusedSettings> {};

TEST_P(UartRefusal, GivesMinus1AndLeavesThePortAlone) {
    ASSERT_EQ(sdk_uart_cfg(mPort, 9600, 1, 7, 2, 'E'), 0);
    const termios before = settings();
    const RefusedSettings& row = GetParam();
    EXPECT_EQ(sdk_uart_cfg(mPort, 115200, 0, row.databits, row.stopbits, row.parity), -1);
    const termios after = settings();
    EXPECT_EQ(after.c_cflag, before.c_cflag);
    EXPECT_EQ(after.c_iflag, before.c_iflag);
    EXPECT_EQ(cfgetospeed(&after), cfgetospeed(&before));
}

INSTANTIATE_TEST_SUITE_P(OfWhatNoPortHas, UartRefusal,
                         testing::Values(RefusedSettings{4, 1, 'N'}, RefusedSettings{9, 1, 'N'},
                                         RefusedSettings{8, 0, 'N'}, RefusedSettings{8, 3, 'N'},
                                         RefusedSettings{8, 1, 'X'}, RefusedSettings{8, 1, 'D'},
                                         RefusedSettings{8, 1, 't'}, RefusedSettings{8, 1, 0}));

TEST_F(UartPort, SettingsThatCannotBeReadGiveMinus1) {
    EXPECT_EQ(sdk_uart_cfg(-1, 9600, 0, 8, 1, 'N'), -1);
}

TEST_F(UartPort, SettingsThatCannotBeWrittenSayComSetError) {
    board.faults().add({.call = Call::kTcsetattr, .error = EIO});
    EXPECT_EQ(standardOutputOf([&] { EXPECT_EQ(sdk_uart_cfg(mPort, 9600, 0, 8, 1, 'N'), -1); }),
              "com set error!\n");
}

TEST_F(UartPort, InitGivesAPortOf8N1AtTheRate) {
    const int port = sdk_uart_init(kHeronUart, 115200);
    ASSERT_GE(port, 0);
    EXPECT_EQ(board.mcuUart().baud(), 115200);
    EXPECT_EQ(board.mcuUart().mode(), "8N1");
    sdk_uart_close(port);
}

TEST_F(UartPort, InitOfAMissingDeviceSaysSo) {
    EXPECT_EQ(standardOutputOf([] { EXPECT_EQ(sdk_uart_init("/dev/ttyS99", 115200), -1); }),
              "uart open failed /dev/ttyS99 \n");
    EXPECT_EQ(standardOutputOf([] { EXPECT_EQ(sdk_uart_init(nullptr, 115200), -1); }),
              "uart open failed (null) \n");
}

TEST_F(UartPort, InitThatCannotConfigureSaysSoAndClosesThePort) {
    board.faults().add({.call = Call::kTcgetattr, .error = EIO});
    EXPECT_EQ(standardOutputOf([] { EXPECT_EQ(sdk_uart_init(kHeronUart, 115200), -1); }),
              "uart set fail /dev/ttyS3 \n");
    const auto events = board.trace().events();
    EXPECT_TRUE(std::any_of(events.begin(), events.end(), [](const board::Event& event) {
        return event.kind == board::EventKind::kClose;
    }));
}

TEST_F(UartPort, ReadWithNoDataReturns0AtOnce) {
    ASSERT_EQ(sdk_uart_cfg(mPort, 115200, 0, 8, 1, 'N'), 0);
    const auto before = board.now();
    uint8_t byte = 0;
    EXPECT_EQ(sdk_uart_read(mPort, &byte, 1), 0);
    EXPECT_EQ(board.now(), before);
}

TEST_F(UartPort, NullBuffersGiveMinus5) {
    EXPECT_EQ(sdk_uart_write(mPort, nullptr, 4), -5);
    EXPECT_EQ(sdk_uart_read(mPort, nullptr, 4), -5);
}

TEST_F(UartPort, WriteReturnsTheCountAlsoWhenItIsShort) {
    ASSERT_EQ(sdk_uart_cfg(mPort, 115200, 0, 8, 1, 'N'), 0);
    const uint8_t bytes[] = {1, 2, 3};
    EXPECT_EQ(sdk_uart_write(mPort, bytes, 3), 3);
    board.faults().add({.call = Call::kWrite, .path = kHeronUart, .shortTo = 1});
    EXPECT_EQ(sdk_uart_write(mPort, bytes, 3), 1);
}

TEST_F(UartPort, FailedWritePrintsResultAndReason) {
    board.faults().add({.call = Call::kWrite, .path = kHeronUart, .error = EAGAIN});
    const uint8_t byte = 1;
    EXPECT_EQ(standardOutputOf([&] { EXPECT_EQ(sdk_uart_write(mPort, &byte, 1), -1); }),
              "uart write error(-1) err(Resource temporarily unavailable)\n");
}

TEST_F(UartPort, FailedReadIsReturnedAsItIs) {
    board.faults().add({.call = Call::kRead, .path = kHeronUart, .error = EINTR});
    uint8_t byte = 0;
    EXPECT_EQ(sdk_uart_read(mPort, &byte, 1), -1);
}

TEST_F(UartPort, PortThatDisappearsFailsWritesAndDoesNotCrash) {
    board.mcuUart().unplug();
    const uint8_t byte = 1;
    EXPECT_EQ(standardOutputOf([&] { EXPECT_EQ(sdk_uart_write(mPort, &byte, 1), -1); }),
              "uart write error(-1) err(Input/output error)\n");
    uint8_t in = 0;
    EXPECT_LE(sdk_uart_read(mPort, &in, 1), 0);
    EXPECT_THAT(board.log(), IsEmpty());
}

TEST_F(UartPort, CloseReturns0AlsoForABadDescriptor) { EXPECT_EQ(sdk_uart_close(-1), 0); }

}  // namespace quil::tests
