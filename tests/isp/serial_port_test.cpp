#include <errno.h>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>

#include "tests/isp/isp_test.h"

namespace quil::tests {

using board::Call;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

class IspSerialPort : public IspTest {
  protected:
    termios settings() const {
        termios port = {};
        EXPECT_EQ(tcgetattr(fd, &port), 0);
        return port;
    }
    void change(const std::function<void(termios&)>& edit) const {
        termios port = settings();
        edit(port);
        EXPECT_EQ(tcsetattr(fd, TCSANOW, &port), 0);
    }
    void failOnce(Call call, int error = EIO) {
        board.faults().add({.call = call, .error = error});
    }
    void failReads(int times, board::Nanos takes) {
        board.faults().add({.call = Call::kRead,
                            .path = kHeronUart,
                            .error = EINTR,
                            .times = times,
                            .takes = takes});
    }
    // Makes the MCU send these bytes, and waits until they are in the port's buffer.
    void arrive(const Bytes& bytes) {
        board.mcuUart().sendToHost(bytes);
        board.runFor(milliseconds(bytes.size()));
    }
    // The same after `delay`, without waiting for it.
    void arriveLater(board::Nanos delay, const Bytes& bytes) {
        board.after(delay, [this, bytes] { board.mcuUart().sendToHost(bytes); });
    }
};

// Opening.

TEST_F(IspSerialPort, InitOpensWithoutWaitingAndSetsSpeedAndCharacter) {
    setLogLevel("D");
    EXPECT_EQ(mcu_serial_init(kHeronUart, 115200, 8, 1, 'O'), 0);
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(board.mcuUart().baud(), 115200);
    EXPECT_EQ(board.mcuUart().mode(), "8O1");
    EXPECT_THAT(said(), ElementsAre("D mcu_set_baudrate: set baudrate: 115200.\n"));
}

TEST_F(IspSerialPort, InitLooksOnlyAtTheLowByteOfDataAndStopBits) {
    EXPECT_EQ(mcu_serial_init(kHeronUart, 9600, 0x107, 0x302, 'N'), 0);
    EXPECT_EQ(board.mcuUart().mode(), "7N2");
}

TEST_F(IspSerialPort, InitOfAMissingDeviceStoresTheFailedResult) {
    fd = 77;
    EXPECT_EQ(mcu_serial_init("/dev/ttyS99", 115200, 8, 1, 'O'), -1);
    EXPECT_EQ(fd, -1);
    EXPECT_THAT(said(), ElementsAre("E mcu_serial_init: Open serial port /dev/ttyS99 failed.\n"));
}

TEST_F(IspSerialPort, InitWithoutAPathFailsAsAnOpenDoes) {
    EXPECT_EQ(mcu_serial_init(nullptr, 115200, 8, 1, 'O'), -1);
    EXPECT_EQ(fd, -1);
    EXPECT_THAT(said(), ElementsAre("E mcu_serial_init: Open serial port (null) failed.\n"));
}

TEST_F(IspSerialPort, InitWhoseSpeedFailsLeavesThePortOpenAndTheCharacterUnset) {
    EXPECT_EQ(mcu_serial_init(kHeronUart, 460800, 9, 9, 'X'), -1);
    EXPECT_GE(fd, 0);
    EXPECT_THAT(said(), ElementsAre("E mcu_set_baudrate: Invalid baudrate value: 460800.\n",
                                    "E mcu_serial_init: mcu_set_baudrate failed.\n"));
    EXPECT_THAT(done(), ElementsAre("open"));
    EXPECT_TRUE(isOpen(fd));
}

TEST_F(IspSerialPort, InitWhoseCharacterFailsLeavesThePortOpen) {
    EXPECT_EQ(mcu_serial_init(kHeronUart, 115200, 8, 1, 'X'), -1);
    EXPECT_GE(fd, 0);
    EXPECT_THAT(said(), ElementsAre("E TTY: Invalid parity value X.\n",
                                    "E mcu_serial_init: mcu_set_parity failed.\n"));
    EXPECT_THAT(done(), ElementsAre("open"));
    EXPECT_TRUE(isOpen(fd));
}

TEST_F(IspSerialPort, CloseReturnsWhatTheCloseReturnsAndKeepsTheNumber) {
    openPort();
    const int number = fd;
    EXPECT_EQ(mcu_serial_close(), 0);
    EXPECT_EQ(fd, number);
    EXPECT_EQ(mcu_serial_close(), -1);
}

// Speed.

struct IspRateRow {
    int baud;
    speed_t speed;
};
void PrintTo(const IspRateRow& rate, std::ostream* out) { *out << rate.baud << " baud"; }
class IspRate : public IspSerialPort, public testing::WithParamInterface<IspRateRow> {};

TEST_P(IspRate, OfTheTableIsSetInBothDirections) {
    openPort();
    EXPECT_EQ(mcu_set_baudrate(fd, static_cast<unsigned>(GetParam().baud)), 0);
    const termios port = settings();
    EXPECT_EQ(cfgetispeed(&port), GetParam().speed);
    EXPECT_EQ(cfgetospeed(&port), GetParam().speed);
    EXPECT_THAT(said(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Each, IspRate,
    testing::Values(IspRateRow{50, B50}, IspRateRow{75, B75}, IspRateRow{110, B110},
                    IspRateRow{134, B134}, IspRateRow{150, B150}, IspRateRow{200, B200},
                    IspRateRow{300, B300}, IspRateRow{600, B600}, IspRateRow{1200, B1200},
                    IspRateRow{1800, B1800}, IspRateRow{2400, B2400}, IspRateRow{4800, B4800},
                    IspRateRow{9600, B9600}, IspRateRow{19200, B19200}, IspRateRow{38400, B38400},
                    IspRateRow{57600, B57600}, IspRateRow{115200, B115200},
                    IspRateRow{230400, B230400}, IspRateRow{1000000, B1000000}));

class IspRefusedRate : public IspSerialPort, public testing::WithParamInterface<unsigned> {};

TEST_P(IspRefusedRate, IsNamedInTheMessageAndLeavesTheSpeedAsItWas) {
    openPort();
    setLogLevel("D");
    EXPECT_EQ(mcu_set_baudrate(fd, GetParam()), -1);
    const std::string rate = std::to_string(GetParam());
    EXPECT_THAT(said(), ElementsAre("D mcu_set_baudrate: set baudrate: " + rate + ".\n",
                                    "E mcu_set_baudrate: Invalid baudrate value: " + rate + ".\n"));
    EXPECT_EQ(board.mcuUart().baud(), 115200);
}

INSTANTIATE_TEST_SUITE_P(Each, IspRefusedRate,
                         testing::Values(0U, 460800U, 500000U, 921600U, 2000000U, 4294967295U));

TEST_F(IspSerialPort, SpeedOfAPortWithoutAttributesFailsBeforeTheRateIsLookedUp) {
    openPort();
    failOnce(Call::kTcgetattr);
    EXPECT_EQ(mcu_set_baudrate(fd, 460800), -1);
    EXPECT_THAT(said(),
                ElementsAre("E mcu_set_baudrate: Error getting attribute (baudrate) of tty.\n"));
}

TEST_F(IspSerialPort, SpeedThatCannotBeSetFails) {
    openPort();
    failOnce(Call::kTcsetattr);
    EXPECT_EQ(mcu_set_baudrate(fd, 9600), -1);
    EXPECT_THAT(said(), ElementsAre("E mcu_set_baudrate: set baudrate failed.\n"));
    EXPECT_EQ(board.mcuUart().baud(), 115200);
}

TEST_F(IspSerialPort, InputIsDroppedBeforeTheSpeedIsSet) {
    openPort();
    arrive({1, 2, 3});
    failOnce(Call::kTcsetattr);
    EXPECT_EQ(mcu_set_baudrate(fd, 115200), -1);
    uint8_t byte = 0;
    EXPECT_EQ(read(fd, &byte, 1), 0);
}

TEST_F(IspSerialPort, InputIsDroppedOnceMoreAfterTheSpeedIsSet) {
    openPort();
    arrive({1, 2, 3});
    failOnce(Call::kTcflush);
    EXPECT_EQ(mcu_set_baudrate(fd, 115200), 0);
    uint8_t byte = 0;
    EXPECT_EQ(read(fd, &byte, 1), 0);
}

TEST_F(IspSerialPort, OutputOnItsWayIsDroppedWithTheSpeed) {
    openPort();
    const Bytes bytes(100, 0x55);
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), 100);
    EXPECT_EQ(mcu_set_baudrate(fd, 115200), 0);
    EXPECT_EQ(board.mcuUart().bytesOnTheWay(), 0U);
}

// Character.

struct IspParityRow {
    char letter;
    tcflag_t before;  // of PARENB and PARODD
    tcflag_t after;
    bool checksInput;
};
void PrintTo(const IspParityRow& row, std::ostream* out) {
    *out << row.letter << (row.before == 0 ? " after none" : " after odd");
}
class IspParity : public IspSerialPort, public testing::WithParamInterface<IspParityRow> {};

TEST_P(IspParity, SetsExactlyItsFlags) {
    openPort();
    change([](termios& port) {
        port.c_cflag &= ~static_cast<tcflag_t>(PARENB | PARODD);
        port.c_cflag |= GetParam().before;
        port.c_iflag &= ~static_cast<tcflag_t>(INPCK);
    });
    EXPECT_EQ(mcu_set_parity(fd, 8, 1, GetParam().letter), 0);
    EXPECT_EQ(settings().c_cflag & (PARENB | PARODD), GetParam().after);
    EXPECT_EQ((settings().c_iflag & INPCK) != 0, GetParam().checksInput);
    EXPECT_THAT(said(), IsEmpty());
}

constexpr tcflag_t kOdd = PARENB | PARODD;
INSTANTIATE_TEST_SUITE_P(
    Each, IspParity,
    testing::Values(IspParityRow{'N', 0, 0, false}, IspParityRow{'n', 0, 0, false},
                    IspParityRow{'N', kOdd, PARODD, false}, IspParityRow{'E', 0, PARENB, false},
                    IspParityRow{'e', kOdd, PARENB, false}, IspParityRow{'O', 0, kOdd, false},
                    IspParityRow{'o', kOdd, kOdd, false}, IspParityRow{'S', 0, 0, true},
                    IspParityRow{'s', kOdd, PARODD, true}));

TEST_F(IspSerialPort, InputParityCheckThatIsOnStaysOnWithEveryParity) {
    openPort();
    for (const char letter : {'N', 'E', 'O', 'S'}) {
        change([](termios& port) { port.c_iflag |= INPCK; });
        EXPECT_EQ(mcu_set_parity(fd, 8, 1, letter), 0);
        EXPECT_NE(settings().c_iflag & INPCK, 0U) << letter;
    }
}

TEST_F(IspSerialPort, DataBitsOf7And8SetTheWholeField) {
    openPort();
    EXPECT_EQ(mcu_set_parity(fd, 7, 1, 'N'), 0);
    EXPECT_EQ(settings().c_cflag & CSIZE, static_cast<tcflag_t>(CS7));
    EXPECT_EQ(mcu_set_parity(fd, 8, 1, 'N'), 0);
    EXPECT_EQ(settings().c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
}

TEST_F(IspSerialPort, StopBitsOf2SetCstopbAnd1ClearsIt) {
    openPort();
    EXPECT_EQ(mcu_set_parity(fd, 8, 2, 'N'), 0);
    EXPECT_NE(settings().c_cflag & CSTOPB, 0U);
    EXPECT_EQ(mcu_set_parity(fd, 8, 1, 'N'), 0);
    EXPECT_EQ(settings().c_cflag & CSTOPB, 0U);
}

TEST_F(IspSerialPort, RawModeClearsExactlyItsBitsAndMakesReadsReturnAtOnce) {
    openPort();
    change([](termios& port) {
        port.c_iflag = IXON | IXOFF | IXANY | ICRNL | INLCR | BRKINT | ISTRIP;
        port.c_oflag = OPOST | ONLCR;
        port.c_lflag = ISIG | ICANON | ECHO | ECHOE | ECHOK | IEXTEN;
        port.c_cflag = B9600 | CS8 | CRTSCTS | HUPCL;
        port.c_cc[VTIME] = 9;
        port.c_cc[VMIN] = 9;
    });
    EXPECT_EQ(mcu_set_parity(fd, 8, 1, 'N'), 0);
    const termios port = settings();
    EXPECT_EQ(port.c_iflag, static_cast<tcflag_t>(BRKINT | ISTRIP));
    EXPECT_EQ(port.c_oflag, static_cast<tcflag_t>(ONLCR));
    EXPECT_EQ(port.c_lflag, static_cast<tcflag_t>(ECHOK | IEXTEN));
    EXPECT_EQ(port.c_cflag, static_cast<tcflag_t>(B9600 | CS8 | HUPCL | CLOCAL | CREAD));
    EXPECT_EQ(port.c_cc[VTIME], 0);
    EXPECT_EQ(port.c_cc[VMIN], 0);
}

TEST_F(IspSerialPort, CharacterDropsInputAndKeepsOutput) {
    openPort();
    arrive({1, 2, 3});
    const Bytes bytes(100, 0x55);
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), 100);
    for (const uint8_t byte : bytes) mcu.expect({byte});
    EXPECT_EQ(mcu_set_parity(fd, 8, 1, 'O'), 0);
    uint8_t byte = 0;
    EXPECT_EQ(read(fd, &byte, 1), 0);
    EXPECT_GT(board.mcuUart().bytesOnTheWay(), 90U);
    board.runFor(seconds(1));
}

struct IspRefusedRow {
    int databits, stopbits, parity, result;
    const char* text;
};
void PrintTo(const IspRefusedRow& row, std::ostream* out) {
    *out << row.databits << " data bits, " << row.stopbits << " stop bits, parity " << row.parity;
}
class IspRefusedCharacter : public IspSerialPort,
                            public testing::WithParamInterface<IspRefusedRow> {};

TEST_P(IspRefusedCharacter, HasItsOwnResultAndMessageAndLeavesThePortAlone) {
    openPort();
    const termios before = settings();
    const IspRefusedRow& row = GetParam();
    EXPECT_EQ(mcu_set_parity(fd, row.databits, row.stopbits, row.parity), row.result);
    EXPECT_THAT(said(), ElementsAre(row.text));
    EXPECT_EQ(settings().c_cflag, before.c_cflag);
    EXPECT_EQ(settings().c_iflag, before.c_iflag);
}

INSTANTIATE_TEST_SUITE_P(
    Each, IspRefusedCharacter,
    testing::Values(IspRefusedRow{6, 1, 'N', -1, "E TTY: Invalid databits value 6.\n"},
                    IspRefusedRow{9, 1, 'N', -1, "E TTY: Invalid databits value 9.\n"},
                    IspRefusedRow{0, 0, 'X', -1, "E TTY: Invalid databits value 0.\n"},
                    IspRefusedRow{8, 1, 'X', -2, "E TTY: Invalid parity value X.\n"},
                    IspRefusedRow{8, 0, 'M', -2, "E TTY: Invalid parity value M.\n"},
                    IspRefusedRow{8, 0, 'O', -3, "E TTY: Invalid stopbits value 0.\n"},
                    IspRefusedRow{7, 3, 's', -3, "E TTY: Invalid stopbits value 3.\n"}));

TEST_F(IspSerialPort, CharacterOfAPortWithoutAttributesGivesMinus1) {
    openPort();
    failOnce(Call::kTcgetattr);
    EXPECT_EQ(mcu_set_parity(fd, 9, 9, 'X'), -1);
    EXPECT_THAT(said(), ElementsAre("E TTY: Error getting attribute (parity) of tty.\n"));
}

TEST_F(IspSerialPort, CharacterThatCannotBeSetGivesMinus4) {
    openPort();
    failOnce(Call::kTcsetattr);
    EXPECT_EQ(mcu_set_parity(fd, 8, 1, 'O'), -4);
    EXPECT_THAT(said(),
                ElementsAre("E TTY: Error setting attribute (databits, parity, stopbits) of "
                            "tty.\n"));
}

// Writing.

TEST_F(IspSerialPort, WriteGivesTheCountAlsoWhenItIsShort) {
    openPort();
    const Bytes bytes = {1, 2, 3};
    mcu.expect(bytes);
    EXPECT_EQ(mcu_serial_write(bytes.data(), 3), 3);
    board.runFor(milliseconds(1));
    board.faults().add({.call = Call::kWrite, .path = kHeronUart, .shortTo = 1});
    mcu.expect({1});
    EXPECT_EQ(mcu_serial_write(bytes.data(), 3), 1);
    EXPECT_THAT(said(), IsEmpty());
    board.runFor(milliseconds(1));
}

TEST_F(IspSerialPort, FailedWriteGives2AndAMessage) {
    openPort();
    failOnce(Call::kWrite);
    const Bytes bytes = {1, 2, 3};
    EXPECT_EQ(mcu_serial_write(bytes.data(), 3), 2);
    EXPECT_THAT(said(), ElementsAre("E mcu_serial_write: write error. \n"));
}

// The timed read.

TEST_F(IspSerialPort, ReadOfNothingReturns0WithoutTouchingThePort) {
    uint8_t byte = 0xEE;
    for (const int len : {0, -1}) EXPECT_EQ(mcu_serial_read(&byte, len), 0);
    EXPECT_EQ(byte, 0xEE);
    EXPECT_THAT(said(), IsEmpty());
}

TEST_F(IspSerialPort, ReadTakesExactlyWhatWasAskedForFromManyBursts) {
    openPort();
    arriveLater(milliseconds(25), {1, 2});
    arriveLater(milliseconds(55), {3, 4, 5});
    Bytes bytes(4);
    EXPECT_EQ(mcu_serial_read(bytes.data(), 4), 0);
    EXPECT_EQ(bytes, (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(mcu_serial_read(bytes.data(), 1), 0);
    EXPECT_EQ(bytes[0], 5);
    EXPECT_THAT(said(), IsEmpty());
}

TEST_F(IspSerialPort, SilentDeviceTimesOutAfter100PausesOf10Ms) {
    openPort();
    const auto start = board.now();
    Bytes bytes(3, 0xEE);
    EXPECT_EQ(mcu_serial_read(bytes.data(), 3), 3);
    EXPECT_EQ(board.now() - start, seconds(1));
    EXPECT_EQ(board.trace().events(board::EventKind::kSleep).size(), 100U);
    EXPECT_EQ(bytes, Bytes(3, 0xEE));
    EXPECT_THAT(said(), ElementsAre("E mcu_serial_read: read fd(" + std::to_string(fd) +
                                    ") 0 Bytes  100 times! \n"));
}

TEST_F(IspSerialPort, IdleRoundsAreNotForgottenWhenDataArrive) {
    openPort();
    const auto start = board.now();
    arriveLater(milliseconds(505), {1});
    arriveLater(milliseconds(905), {2});
    Bytes bytes(3, 0xEE);
    EXPECT_EQ(mcu_serial_read(bytes.data(), 3), 3);
    EXPECT_EQ(board.now() - start, seconds(1));
    EXPECT_EQ(bytes, (Bytes{1, 2, 0xEE}));
    EXPECT_THAT(said(), ElementsAre("E mcu_serial_read: read fd(" + std::to_string(fd) +
                                    ") 2 Bytes  100 times! \n"));
}

TEST_F(IspSerialPort, ByteOfTheLastRoundsPauseComesTooLate) {
    openPort();
    arriveLater(milliseconds(985), {1});  // read by the 100th round: before its pause
    uint8_t byte = 0;
    EXPECT_EQ(mcu_serial_read(&byte, 1), 0);
    arriveLater(milliseconds(995), {2});
    EXPECT_EQ(mcu_serial_read(&byte, 1), 3);
}

TEST_F(IspSerialPort, FailedReadsAreTriedAgainAtOnceWithoutBeingCounted) {
    openPort();
    arrive({0x79});
    const auto start = board.now();
    for (const int error : {EINTR, EAGAIN, EINVAL, EISDIR, EFAULT, ENOMEM}) {
        board.faults().add({.call = Call::kRead, .path = kHeronUart, .error = error, .times = 500});
    }
    uint8_t byte = 0;
    EXPECT_EQ(mcu_serial_read(&byte, 1), 0);
    EXPECT_EQ(byte, 0x79);
    EXPECT_EQ(board.now(), start);
}

TEST_F(IspSerialPort, UnpluggedPortIsAnIdleLine) {
    openPort();
    for (const int error : {EIO, ENXIO, ENODEV}) {
        board.faults().clear();
        board.faults().add({.call = Call::kRead, .path = kHeronUart, .error = error, .times = -1});
        const auto start = board.now();
        uint8_t byte = 0;
        EXPECT_EQ(mcu_serial_read(&byte, 1), 3);
        EXPECT_EQ(board.now() - start, seconds(1)) << error;
    }
}

TEST_F(IspSerialPort, DescriptorThatCanNeverAnswerTimesOutAtOnce) {
    openPort();
    mcu_serial_close();
    const auto start = board.now();
    uint8_t byte = 0;
    EXPECT_EQ(mcu_serial_read(&byte, 1), 3);
    fd = -1;
    EXPECT_EQ(mcu_serial_read(&byte, 1), 3);
    EXPECT_EQ(board.now(), start);
    EXPECT_EQ(said().back(), "E mcu_serial_read: read fd(-1) 0 Bytes  0 times! \n");
}

TEST_F(IspSerialPort, ReadWithoutABufferTimesOutAtOnce) {
    openPort();
    EXPECT_EQ(mcu_serial_read(nullptr, 1), 3);
    EXPECT_EQ(mcu_serial_read_select(nullptr, 0), 5);
}

TEST_F(IspSerialPort, ReadsThatFailForEverTimeOutAfter10Seconds) {
    openPort();
    failReads(-1, milliseconds(1));
    auto start = board.now();
    uint8_t byte = 0;
    EXPECT_EQ(mcu_serial_read(&byte, 1), 3);
    EXPECT_EQ(board.now() - start, seconds(10));
    EXPECT_EQ(said().back(),
              "E mcu_serial_read: read fd(" + std::to_string(fd) + ") 0 Bytes  0 times! \n");
    board.mcuUart().sendToHost(Bytes{1});
    start = board.now();
    EXPECT_EQ(mcu_serial_read_select(&byte, 1), 3);
    EXPECT_GE(board.now() - start, seconds(10));
    EXPECT_LT(board.now() - start, seconds(11));
}

TEST_F(IspSerialPort, PortThatMayNotWaitForItsByteIsReadFor10Seconds) {
    openPort();
    change([](termios& port) { port.c_cc[VMIN] = 1; });  // a read of an empty port is EAGAIN
    const auto start = board.now();
    uint8_t byte = 0;
    EXPECT_EQ(mcu_serial_read(&byte, 1), 3);
    EXPECT_EQ(board.now() - start, seconds(10));
    arriveLater(milliseconds(9500), {7});
    EXPECT_EQ(mcu_serial_read(&byte, 1), 0);
    EXPECT_EQ(byte, 7);
}

TEST_F(IspSerialPort, FailingReadsHaveTheir10SecondsAfterEachByte) {
    openPort();
    arrive({1, 2});
    failReads(9, seconds(1));
    board.faults().add({.call = Call::kRead, .path = kHeronUart, .shortTo = 1});
    failReads(9, seconds(1));
    const auto start = board.now();
    Bytes bytes(2);
    EXPECT_EQ(mcu_serial_read(bytes.data(), 2), 0);
    EXPECT_EQ(bytes, (Bytes{1, 2}));
    EXPECT_EQ(board.now() - start, seconds(18));
}

// The read that waits first.

TEST_F(IspSerialPort, SelectReadGives1WhenAllBytesAreThere) {
    openPort();
    arrive({1, 2, 3});
    Bytes bytes(3);
    EXPECT_EQ(mcu_serial_read_select(bytes.data(), 3), 1);
    EXPECT_EQ(bytes, (Bytes{1, 2, 3}));
    EXPECT_THAT(said(), IsEmpty());
}

TEST_F(IspSerialPort, SelectReadOfNothingWaitsAndLeavesTheInputAlone) {
    openPort();
    arriveLater(milliseconds(300), {7});
    const auto start = board.now();
    uint8_t byte = 0;
    EXPECT_EQ(mcu_serial_read_select(&byte, 0), 1);
    EXPECT_GE(board.now() - start, milliseconds(300));
    EXPECT_EQ(mcu_serial_read_select(&byte, 1), 1);
    EXPECT_EQ(byte, 7);
}

TEST_F(IspSerialPort, SelectReadGives5AfterOneSecondOfSilence) {
    openPort();
    setLogLevel("D");
    for (int i = 0; i < 2; ++i) {  // the time-out is set afresh at each call
        const auto start = board.now();
        uint8_t byte = 0;
        EXPECT_EQ(mcu_serial_read_select(&byte, 1), 5);
        EXPECT_EQ(board.now() - start, seconds(1));
    }
    EXPECT_THAT(said(), ElementsAre("D mcu_serial_read select timeout error.\n",
                                    "D mcu_serial_read select timeout error.\n"));
}

TEST_F(IspSerialPort, SelectReadGives4WhenTheWaitFails) {
    openPort();
    setLogLevel("D");
    failOnce(Call::kSelect, EINTR);
    uint8_t byte = 0;
    EXPECT_EQ(mcu_serial_read_select(&byte, 1), 4);
    EXPECT_THAT(said(), ElementsAre("D mcu_serial_read select error.\n"));
}

TEST_F(IspSerialPort, SelectReadGives4WithoutAPort) {
    setLogLevel("D");
    uint8_t byte = 0;
    for (const int number : {-1, FD_SETSIZE}) {
        fd = number;
        EXPECT_EQ(mcu_serial_read_select(&byte, 1), 4);
    }
    EXPECT_THAT(said(), ElementsAre("D mcu_serial_read select error.\n",
                                    "D mcu_serial_read select error.\n"));
}

TEST_F(IspSerialPort, SelectReadGives3AfterTenEmptyReadsWithoutAPause) {
    openPort();
    setLogLevel("D");
    arrive({1});
    const auto start = board.now();
    Bytes bytes(2, 0xEE);
    EXPECT_EQ(mcu_serial_read_select(bytes.data(), 2), 3);
    EXPECT_EQ(board.now(), start);
    EXPECT_EQ(bytes, (Bytes{1, 0xEE}));
    EXPECT_THAT(said(), ElementsAre("D read fd(" + std::to_string(fd) + ") 0 Bytes  10 times! \n"));
}

TEST_F(IspSerialPort, SelectReadTriesFailedReadsAgainWithoutCountingThem) {
    openPort();
    arrive({1, 2});
    board.faults().add({.call = Call::kRead, .path = kHeronUart, .error = EINTR, .times = 50});
    Bytes bytes(2);
    EXPECT_EQ(mcu_serial_read_select(bytes.data(), 2), 1);
    EXPECT_EQ(bytes, (Bytes{1, 2}));
}

TEST_F(IspSerialPort, DebugMessagesStayInsideBelowDebugLevel) {
    openPort();
    setLogLevel("I");
    uint8_t byte = 0;
    EXPECT_EQ(mcu_serial_read_select(&byte, 1), 5);
    fd = -1;
    EXPECT_EQ(mcu_serial_read_select(&byte, 1), 4);
    EXPECT_THAT(said(), IsEmpty());
}

}  // namespace quil::tests
