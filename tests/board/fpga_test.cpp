// The FPGA's model, through the library calls only: configuration, DONE, SPI transactions,
// registers, memory.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "board/board.h"
#include "board/core/bytes.h"
#include "board/fpga/fpga_image.h"
#include "platform/vendor/include/quil_hal.h"
#include "testing/bytes.h"

namespace {

using namespace quil::board;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

using quil::tests::Bytes;

constexpr int32_t kControl = 441, kConfig = 442, kDone = 443;

class BoardFpga : public testing::Test {
  protected:
    static ssize_t transact(bool isRead, Bytes& bytes) {
        const int fd = open("/dev/fpga_spi", O_RDWR);
        const ssize_t done =
            isRead ? read(fd, bytes.data(), bytes.size()) : write(fd, bytes.data(), bytes.size());
        const int error = errno;
        close(fd);
        errno = error;
        return done;
    }
    static ssize_t send(Bytes bytes) { return transact(false, bytes); }
    // One byte of a register, as a read of 7 bytes gives it.
    static int readByte(uint16_t address) {
        Bytes bytes = {
            0x0B, 0, 0, static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address), 0, 0};
        EXPECT_EQ(transact(true, bytes), 7);
        return bytes[6];
    }
    void reconfigure() {
        EXPECT_EQ(hal_gpio_setvalue(kControl, 0), 0);
        EXPECT_EQ(hal_gpio_setvalue(kControl, 1), 0);
    }

    Board board;
};

TEST_F(BoardFpga, HasConfiguredItselfFromTheFlashAtPowerOn) {
    EXPECT_EQ(hal_gpio_getvalue(kDone), 1);
    EXPECT_EQ(board.fpga().version(), "V2.0.7");
    EXPECT_EQ(readByte(0x1016), 1);
    EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(BoardFpga, ProgBTakesDoneDownAndItsReleaseConfiguresAnew) {
    EXPECT_EQ(hal_gpio_setvalue(kControl, 0), 0);
    EXPECT_EQ(hal_gpio_getvalue(kDone), 0);
    EXPECT_EQ(hal_gpio_setvalue(kControl, 1), 0);
    const auto takes = 5ms + 65536 * 160ns;
    board.runFor(takes - 1us);
    EXPECT_EQ(hal_gpio_getvalue(kDone), 0);
    board.runFor(1us);
    EXPECT_EQ(hal_gpio_getvalue(kDone), 1);
}

TEST_F(BoardFpga, WaitsForTheConfigurationLine) {
    EXPECT_EQ(hal_gpio_setvalue(kControl, 0), 0);
    EXPECT_EQ(hal_gpio_setvalue(kConfig, 0), 0);
    EXPECT_EQ(hal_gpio_setvalue(kControl, 1), 0);
    board.runFor(10s);
    EXPECT_EQ(hal_gpio_getvalue(kDone), 0);
    EXPECT_EQ(hal_gpio_setvalue(kConfig, 1), 0);
    board.runFor(1s);
    EXPECT_EQ(hal_gpio_getvalue(kDone), 1);
}

TEST_F(BoardFpga, ConfigurationLineAloneChangesNothingOnceItRuns) {
    EXPECT_EQ(hal_gpio_setvalue(kConfig, 0), 0);
    EXPECT_EQ(hal_gpio_setvalue(kConfig, 1), 0);
    EXPECT_EQ(hal_gpio_getvalue(kDone), 1);
}

TEST_F(BoardFpga, SecondPulseWhileItConfiguresBeginsAgain) {
    reconfigure();
    board.runFor(10ms);
    reconfigure();
    board.runFor(10ms);
    EXPECT_EQ(hal_gpio_getvalue(kDone), 0);
    board.runFor(10ms);
    EXPECT_EQ(hal_gpio_getvalue(kDone), 1);
}

TEST_F(BoardFpga, DamagedImageNeverRaisesDone) {
    board.flash().damage(40000, 0x10);
    reconfigure();
    board.runFor(20s);
    EXPECT_EQ(hal_gpio_getvalue(kDone), 0);
    EXPECT_EQ(board.fpga().problem(), "wrong CRC");
}

TEST_F(BoardFpga, ErasedFlashNeverRaisesDone) {
    board.flash().preload("");
    reconfigure();
    board.runFor(20s);
    EXPECT_EQ(hal_gpio_getvalue(kDone), 0);
    EXPECT_EQ(board.fpga().problem(), "no sync word");
}

TEST_F(BoardFpga, LineThatTheBoardDoesNotHaveFails) {
    EXPECT_EQ(hal_gpio_setvalue(999, 0), -ENODEV);
    EXPECT_EQ(hal_gpio_getvalue(999), -ENODEV);
    EXPECT_EQ(hal_gpio_setvalue(kControl, 2), -EINVAL);
    EXPECT_THAT(board.violations(), ElementsAre("hal: gpio 441 is set to 2"));
}

TEST_F(BoardFpga, InjectedFaultsMeetTheLines) {
    board.faults().add({.call = Call::kGpioSet, .path = "gpio 441", .error = EIO});
    board.faults().add({.call = Call::kGpioGet, .path = "gpio 443", .error = EIO});
    EXPECT_EQ(hal_gpio_setvalue(kControl, 0), -EIO);
    EXPECT_EQ(hal_gpio_getvalue(kDone), -EIO);
    EXPECT_EQ(hal_gpio_getvalue(kDone), 1);
}

TEST_F(BoardFpga, WrittenBytesStandInItsMemory) {
    EXPECT_EQ(send({0x02, 0x10, 0x00, 0x01, 0x0B, 0x55, 0x66, 0x00}), 8);
    EXPECT_EQ(board.fpga().memoryAt(0x1000010B), 0x55);
    EXPECT_EQ(board.fpga().memoryAt(0x1000010C), 0x66);
    EXPECT_EQ(board.fpga().memoryAt(0x1000010D), std::nullopt);
    EXPECT_THAT(board.fpga().memory(),
                ElementsAre(std::pair(0x1000010BU, 0x55), std::pair(0x1000010CU, 0x66)));
    Bytes back = {0x0B, 0x10, 0x00, 0x01, 0x0B, 0, 0, 0, 0};
    EXPECT_EQ(transact(true, back), 9);
    EXPECT_THAT(back, ElementsAre(0, 0, 0, 0, 0, 0, 0x55, 0x66, 0));
    EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(BoardFpga, ForgetsItsMemoryWhenItIsCleared) {
    send({0x02, 0x10, 0x00, 0x01, 0x00, 0x01, 0x00});
    reconfigure();
    EXPECT_THAT(board.fpga().memory(), IsEmpty());
}

TEST_F(BoardFpga, WithoutAConfigurationWritesAreLostAndReadsGiveOnes) {
    EXPECT_EQ(hal_gpio_setvalue(kControl, 0), 0);
    EXPECT_EQ(send({0x02, 0x10, 0x00, 0x01, 0x00, 0x01, 0x00}), 7);
    EXPECT_EQ(readByte(0x1016), 0xFF);
    EXPECT_THAT(board.fpga().memory(), IsEmpty());
}

TEST_F(BoardFpga, TransactionTakesTheTimeOfItsBytes) {
    const auto start = board.now();
    send({0x02, 0x10, 0x00, 0x01, 0x00, 0x01, 0x00});
    EXPECT_EQ(board.now() - start, 7 * 320ns);
    EXPECT_EQ(board.deviceTime(), 7 * 320ns);
}

struct BadTransaction {
    const char* name;
    bool isRead;
    Bytes bytes;
    const char* violation;
};
void PrintTo(const BadTransaction& row, std::ostream* out) { *out << row.name; }

class BoardFpgaRefuses : public BoardFpga, public testing::WithParamInterface<BadTransaction> {};

TEST_P(BoardFpgaRefuses, TransactionOfTheWrongShape) {
    Bytes bytes = GetParam().bytes;
    transact(GetParam().isRead, bytes);
    EXPECT_THAT(board.violations(), ElementsAre(GetParam().violation));
    EXPECT_THAT(board.fpga().memory(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    All, BoardFpgaRefuses,
    testing::Values(BadTransaction{"NoBytes", false, {}, "fpga: a transaction of 0 bytes:"},
                    BadTransaction{"WriteWithoutData",
                                   false,
                                   {0x02, 0, 0, 0x20, 0, 0},
                                   "fpga: a transaction of 6 bytes: 02 00 00 20 00 00"},
                    BadTransaction{"WriteWithoutItsLastZero",
                                   false,
                                   {0x02, 0, 0, 0, 0x20, 1, 1},
                                   "fpga: a write that does not end in 0x00: 02 00 00 00 20 01 01"},
                    BadTransaction{"WriteWithAnotherCommand",
                                   false,
                                   {0x03, 0, 0, 0, 0x20, 1, 0},
                                   "fpga: a write without the command 0x02: 03 00 00 00 20 01 00"},
                    BadTransaction{"ReadWithTheWriteCommand",
                                   true,
                                   {0x02, 0, 0, 0, 0x20, 0, 0},
                                   "fpga: a read without the command 0x0b: 02 00 00 00 20 00 00"},
                    BadTransaction{"ReadWithoutRoom",
                                   true,
                                   {0x0B, 0, 0, 0, 0x20, 0},
                                   "fpga: a transaction of 6 bytes: 0b 00 00 00 20 00"},
                    BadTransaction{
                        "ReadWithDataInItsBuffer",
                        true,
                        {0x0B, 0, 0, 0, 0x20, 0, 9},
                        "fpga: a read whose buffer is not zero behind the address: 0b 00 00 00 20 "
                        "00 09"},
                    BadTransaction{"WriteToAStateRegister",
                                   false,
                                   {0x02, 0, 0, 0x10, 0x16, 1, 0},
                                   "fpga: no register takes such a write: 0x00001016, 1 bytes 01"},
                    BadTransaction{"ResetWithAnotherValue",
                                   false,
                                   {0x02, 0, 0, 0x11, 0x01, 2, 0},
                                   "fpga: no register takes such a write: 0x00001101, 1 bytes 02"},
                    BadTransaction{"ReadOfARegisterThatIsNone",
                                   true,
                                   {0x0B, 0, 0, 0x11, 0x04, 0, 0},
                                   "fpga: no register can be read: 0x00001104, 1 bytes"}),
    [](const auto& row) { return row.param.name; });

TEST_F(BoardFpga, OpeningInAnotherModeIsAViolation) {
    for (const int flags : {O_RDONLY, O_WRONLY, O_RDWR | O_NONBLOCK}) {
        close(open("/dev/fpga_spi", flags));
    }
    EXPECT_EQ(board.violations().size(), 3U);
    EXPECT_THAT(board.violations().front(), HasSubstr("opened with flags 0"));
}

TEST_F(BoardFpga, InjectedFaultsMeetTheTransactions) {
    board.faults().add({.call = Call::kOpen, .path = "/dev/fpga_spi", .error = ENOENT});
    EXPECT_EQ(open("/dev/fpga_spi", O_RDWR), -1);
    board.faults().add({.call = Call::kWrite, .path = "/dev/fpga_spi", .error = EIO});
    EXPECT_EQ(send({0x02, 0, 0, 0, 0x20, 1, 0}), -1);
    EXPECT_EQ(errno, EIO);
    board.faults().add({.call = Call::kWrite, .path = "/dev/fpga_spi", .lostSilently = true});
    EXPECT_EQ(send({0x02, 0, 0, 0, 0x20, 1, 0}), 7);
    EXPECT_THAT(board.fpga().memory(), IsEmpty());
    board.faults().add({.call = Call::kWrite, .path = "/dev/fpga_spi", .shortTo = 6});
    EXPECT_EQ(send({0x02, 0, 0, 0, 0x20, 1, 2, 3, 0}), 6);
    EXPECT_THAT(board.fpga().memory(), ElementsAre(std::pair(0x20U, 1)));
    board.faults().add({.call = Call::kRead, .path = "/dev/fpga_spi", .shortTo = 4});
    Bytes bytes = {0x0B, 0, 0, 0x10, 0x16, 0, 0};
    EXPECT_EQ(transact(true, bytes), 4);
    EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(BoardFpga, DdrComesGoodSomeTimeAfterTheConfiguration) {
    reconfigure();
    board.runFor(5ms + 65536 * 160ns);
    EXPECT_EQ(readByte(0x1016), 0);
    board.runFor(120ms);
    EXPECT_EQ(readByte(0x1016), 1);
}

TEST_F(BoardFpga, DdrMayComeGoodLateOrOnlyAfterSomeConfigurationsOrNever) {
    board.fpga().setDdr({.after = 3s, .notReady = 7});
    board.runFor(2900ms);
    EXPECT_EQ(readByte(0x1016), 7);
    board.runFor(100ms);
    EXPECT_EQ(readByte(0x1016), 1);
    board.fpga().setDdr({.failures = 1});
    EXPECT_EQ(readByte(0x1016), 0);
    reconfigure();
    board.runFor(1s);
    EXPECT_EQ(readByte(0x1016), 1);
    board.fpga().setDdr({.failures = -1, .notReady = 3});
    reconfigure();
    board.runFor(1h);
    EXPECT_EQ(readByte(0x1016), 3);
}

TEST_F(BoardFpga, ScriptedReadsGiveTheirBytesInTurnAndThenTheLast) {
    board.fpga().scriptReads(0x1100, {0, 2, 1});
    EXPECT_EQ(readByte(0x1100), 0);
    EXPECT_EQ(readByte(0x1100), 2);
    EXPECT_EQ(readByte(0x1100), 1);
    EXPECT_EQ(readByte(0x1100), 1);
    board.fpga().scriptReads(0x1100, {});
    board.fpga().setSgmiiClock({.failures = -1});
    EXPECT_EQ(readByte(0x1100), 0);
}

TEST_F(BoardFpga, NegotiatesAfterBothResetsAreReleased) {
    EXPECT_EQ(readByte(0x1103), 1);
    send({0x02, 0, 0, 0x11, 0x01, 0, 0});
    send({0x02, 0, 0, 0x11, 0x02, 0, 0});
    EXPECT_EQ(readByte(0x1103), 0);
    send({0x02, 0, 0, 0x11, 0x01, 1, 0});
    board.runFor(1s);
    EXPECT_EQ(readByte(0x1103), 0);
    send({0x02, 0, 0, 0x11, 0x02, 1, 0});
    board.runFor(2900us);
    EXPECT_EQ(readByte(0x1103), 0);
    board.runFor(100us);
    EXPECT_EQ(readByte(0x1103), 1);
}

TEST_F(BoardFpga, EveryTransactionIsRecordedAndTraced) {
    send({0x02, 0, 0, 0, 0x20, 1, 0});
    readByte(0x1016);
    const auto all = board.fpga().transactions();
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].address, 0x20U);
    EXPECT_THAT(all[0].sent, ElementsAre(0x02, 0, 0, 0, 0x20, 1, 0));
    EXPECT_TRUE(all[1].isRead);
    EXPECT_THAT(all[1].received, ElementsAre(1));
    const auto events = board.trace().events(EventKind::kSpi);
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].text, "write 0x00000020, 1 bytes");
    EXPECT_EQ(events[1].text, "read 0x00001016, 1 bytes");
}

TEST(BoardFpgaProducts, LinesAreThoseOfTheProductFile) {
    Board board(Product::kWrenT507);
    EXPECT_EQ(hal_gpio_getvalue(143), 1);
    EXPECT_EQ(hal_gpio_getvalue(443), -ENODEV);
}

TEST(BoardFpgaProducts, KestrelWaitsToBeLoaded) {
    Board board(Product::kKestrel);
    EXPECT_EQ(hal_gpio_getvalue(463), 0);
    EXPECT_EQ(hal_fpga_load_program_sync("/dev/fpga_spi", "/vendor/firmware/fpga_Kestrel.bin"), 0);
    EXPECT_EQ(hal_gpio_getvalue(463), 1);
    EXPECT_EQ(board.fpga().version(), "V3.0.2");
}

TEST(FpgaImage, HasItsHeaderSizeAndCrc) {
    const std::string image = makeFpgaImage("V1.2.3", 40);
    EXPECT_THAT(Bytes(image.begin(), image.begin() + 8),
                ElementsAre(0xFA, 0x5C, 0x0D, 0xE5, 0, 0, 0, 40));
    EXPECT_EQ(image.substr(12, 7), std::string("V1.2.3\0", 7));
    EXPECT_EQ(image.size(), 40U);
    const auto* bytes = reinterpret_cast<const uint8_t*>(image.data());
    EXPECT_EQ(checkFpgaImage({bytes, 40}).problem, "");
    EXPECT_EQ(checkFpgaImage({bytes, 39}).problem, "the image ends before its size");
    EXPECT_EQ(checkFpgaImage({bytes, 31}).problem, "no sync word");
}

TEST(FpgaImage, CrcIsThePublishedOne) {
    const std::string digits = "123456789";  // the usual input for a CRC's check value
    EXPECT_EQ(crc32Of(bytesOf(digits)), 0xCBF43926U);
}

TEST(FpgaImage, ThatCannotBeIsRefused) {
    EXPECT_THROW(makeFpgaImage("V1", 32), std::runtime_error);
    EXPECT_THROW(makeFpgaImage(std::string(21, 'V'), 100), std::runtime_error);
}

}  // namespace
