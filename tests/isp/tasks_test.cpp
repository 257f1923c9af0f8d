// Whole STM32/GD32 sessions, and which session an MCU gets.
#include <errno.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>

#include "isp/isp_tasks.h"
#include "tests/isp/isp_test.h"

namespace quil::tests {

using board::Call;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

const Lines kSaidInSynchrony = {"D try_times = 3\n", "D wait ack_startisp ... \n",
                                "D ack_startisp: mcu_serial_read ACK data:0x79\n"};
const Lines kSaidOfType = {"D read_gd_mcu_pid: read gd pid data len = 4\n",
                           "D mcu_type_detect: read gd mcu pid = 0x4e455a30\n",
                           "I mcu_type_detect: clear all unread uart input data\n",
                           "I mcu_type_detect: _mcu_type: MCU_GD32F470\n"};
const Lines kSaidOfEraseCommand = {"D ack_sendcmd: CMD_EXTENDED_ERASE start\n",
                                   "D ack_sendcmd: CMD_EXTENDED_ERASE end\n"};
const char kEraseHeading[] =
    "D \n mcu_tool_isp_task: [*]. erase mcu memory by page(in CMD_WRITE_MEMORY case).\n";

}  // namespace

class IspSession : public IspTest {
  protected:
    void expectUpToType() {
        mcu.expect({0x7F}, kAnswerAck);
        mcu.expect({0x06, 0xF9}, kGd32F470Pid);
    }
    void expectUpToErase(const Bytes& eraseFrame) {
        expectUpToType();
        mcu.expect({0x44, 0xBB}, kAnswerAck);
        mcu.expect(eraseFrame, kAnswerAck);
    }
    // Runs the session and checks that it left the MCU as every session does.
    int run() {
        board.trace().clear();
        const int result = mcu_tool_isp_task(kImagePath, kHeronUart);
        const Lines lines = done();
        const auto exit = static_cast<ptrdiff_t>(kExit.size());
        EXPECT_GE(lines.size(), kExit.size());
        EXPECT_EQ(Lines(lines.end() - exit, lines.end()), kExit);
        EXPECT_FALSE(isOpen(fd));
        return result;
    }
};

TEST_F(IspSession, WritesAnImageAndSaysEveryStepAtDebugLevel) {
    const Bytes image = imageOf(300);
    writeImage(image);
    setLogLevel("D");
    expectUpToErase({0x00, 0x00, 0x00, 0x00, 0x00});
    expectBlock({0x08, 0x00, 0x00, 0x00, 0x08}, part(image, 0, 256));
    expectBlock({0x08, 0x00, 0x01, 0x00, 0x09}, part(image, 256, 44));
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(done(), ElementsAreArray(kEntry + kErasePause + kExit));
    const Lines written = {
        "D get binfile size: 300\n", "D CMD_EXTENDED_ERASE: len = 300, page_cnt = 1\n",
        "D CMD_EXTENDED_ERASE: send erase pages.\n", "D mcu_serial_read ACK data:0x79\n",
        "D \n [*]. write mcu internal flash.\n", "D fread binfile to binbuff . \n",
        // NOLINTNEXTLINE(bugprone-suspicious-missing-comma)
        "D writememory_2mcu: w_addr=0x08000000, w_size=256, all_len=300, "
        "w_times=2, w_last=44\n",
        "D \r write mcu internal flash: [85%]", "D \r write mcu internal flash: [100%]",
        "D writememory_2mcu: final write mcu internal flash: [100]"};
    EXPECT_THAT(said(), ElementsAreArray(kSaidFirst + kSaidInSynchrony + Lines{kEraseHeading} +
                                         kSaidOfType + kSaidOfEraseCommand + written + kSaidLast));
}

TEST_F(IspSession, RunsAtOddParityAndSaysNothingWhenAllIsWell) {
    const Bytes image = imageOf(1);
    writeImage(image);
    expectUpToErase({0x00, 0x00, 0x00, 0x00, 0x00});
    expectBlock({0x08, 0x00, 0x00, 0x00, 0x08}, image);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(board.mcuUart().baud(), 115200);
    EXPECT_EQ(board.mcuUart().mode(), "8O1");
    EXPECT_THAT(said(), IsEmpty());
}

TEST_F(IspSession, SaysItsTypeAtInfoLevel) {
    const Bytes image = imageOf(1);
    writeImage(image);
    setLogLevel("I");
    expectUpToErase({0x00, 0x00, 0x00, 0x00, 0x00});
    expectBlock({0x08, 0x00, 0x00, 0x00, 0x08}, image);
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(said(), ElementsAre("I mcu_type_detect: clear all unread uart input data\n",
                                    "I mcu_type_detect: _mcu_type: MCU_GD32F470\n"));
}

// Synchronisation.

TEST_F(IspSession, ThirdSynchronisationIsEarlyEnough) {
    const Bytes image = imageOf(1);
    writeImage(image);
    setLogLevel("D");
    mcu.expect({0x7F}, kAnswerNack);
    mcu.expect({0x7F}, {0x00});
    expectUpToErase({0x00, 0x00, 0x00, 0x00, 0x00});
    expectBlock({0x08, 0x00, 0x00, 0x00, 0x08}, image);
    EXPECT_EQ(run(), 0);
    const Lines lines = said();
    EXPECT_THAT(
        Lines(lines.begin() + 3, lines.begin() + 12),
        ElementsAre("D try_times = 3\n", "D wait ack_startisp ... \n",
                    "D ack_startisp: mcu_serial_read ACK data:0x1f\n", "D try_times = 2\n",
                    "D wait ack_startisp ... \n", "D ack_startisp: mcu_serial_read ACK data:0x00\n",
                    "D try_times = 1\n", "D wait ack_startisp ... \n",
                    "D ack_startisp: mcu_serial_read ACK data:0x79\n"));
}

TEST_F(IspSession, ThreeUnansweredSynchronisationsEndItAfterTheMcuIsResetIntoItsApplication) {
    writeImage(imageOf(1));
    setLogLevel("D");
    for (int i = 0; i < 3; ++i) mcu.expect({0x7F});
    const auto start = board.now();
    EXPECT_EQ(run(), 15);
    EXPECT_EQ(board.now() - start, milliseconds(1000 + 3 * 1000 + 500));  // no pause between them
    const Lines tries = {"D try_times = 3\n", "D try_times = 2\n", "D try_times = 1\n"};
    Lines expected = kSaidFirst;
    for (const std::string& line : tries) {
        expected.insert(expected.end(), {line, "D wait ack_startisp ... \n", timeOut(),
                                         "D ack_startisp: mcu_serial_read ACK data:0x7f\n"});
    }
    EXPECT_THAT(said(), ElementsAreArray(expected + kSaidLast));
    EXPECT_THAT(done(), ElementsAreArray(kEntry + kExit));
}

TEST_F(IspSession, PortThatCannotBeOpenedIsNotNoticedBeforeTheSynchronisation) {
    setLogLevel("D");
    board.trace().clear();
    EXPECT_EQ(mcu_tool_isp_task(kImagePath, "/dev/ttyS99"), 15);
    const Lines noPort = {"D wait ack_startisp ... \n", "D mcu serial init error. \n"};
    EXPECT_THAT(said(),
                ElementsAreArray(Lines{"D \n [*]. do task ! \n",
                                       "E mcu_serial_init: Open serial port /dev/ttyS99 failed.\n",
                                       "D  ==========> [isp init]. \n", "D try_times = 3\n"} +
                                 noPort + Lines{"D try_times = 2\n"} + noPort +
                                 Lines{"D try_times = 1\n"} + noPort + kSaidLast));
    // BOOT0 and NRST are driven all the same.
    EXPECT_THAT(done(), ElementsAreArray(Lines(kEntry.begin() + 1, kEntry.end()) +
                                         Lines(kExit.begin() + 1, kExit.end())));
}

TEST_F(IspSession, PortWhoseSettingsFailIsUsedAsItIs) {
    const Bytes image = imageOf(1);
    writeImage(image);
    board.faults().add({.call = Call::kTcsetattr, .path = kHeronUart, .error = EIO, .times = 1});
    mcu.setLine({9600, 8, 'N', 1});  // the port's settings at power-on
    for (int i = 0; i < 3; ++i) mcu.expect({0x7F});
    EXPECT_EQ(run(), 15);
    EXPECT_THAT(said(), Contains("E mcu_serial_init: mcu_set_baudrate failed.\n"));
}

// Erase.

TEST_F(IspSession, RefusedEraseCommandEndsItWith15) {
    writeImage(imageOf(1));
    setLogLevel("D");
    expectUpToType();
    mcu.expect({0x44, 0xBB}, kAnswerNack);
    EXPECT_EQ(run(), 15);
    EXPECT_THAT(said(),
                ElementsAreArray(kSaidFirst + kSaidInSynchrony + Lines{kEraseHeading} +
                                 kSaidOfType + kSaidOfEraseCommand +
                                 Lines{"D ack_sendcmd CMD_EXTENDED_ERASE failed.\n"} + kSaidLast));
    EXPECT_THAT(done(), ElementsAreArray(kEntry + kExit));
}

TEST_F(IspSession, ImageOf3GibHasNoSizeAndEndsItWith15) {
    if (!writeHugeImage()) GTEST_SKIP() << "32-bit file sizes";
    setLogLevel("D");
    expectUpToType();
    mcu.expect({0x44, 0xBB}, kAnswerAck);
    EXPECT_EQ(run(), 15);
    EXPECT_THAT(said(), ElementsAreArray(
                            kSaidFirst + kSaidInSynchrony + Lines{kEraseHeading} + kSaidOfType +
                            kSaidOfEraseCommand +
                            Lines{"D get binfile size: -1073741824\n", "D get bootsize error.\n"} +
                            kSaidLast));
}

TEST_F(IspSession, RefusedEraseIsIgnoredAndTheImageWrittenAllTheSame) {
    const Bytes image = imageOf(1);
    writeImage(image);
    setLogLevel("D");
    expectUpToType();
    mcu.expect({0x44, 0xBB}, kAnswerAck);
    mcu.expect({0x00, 0x00, 0x00, 0x00, 0x00}, kAnswerNack);
    expectBlock({0x08, 0x00, 0x00, 0x00, 0x08}, image);
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(said(), Contains("D  erasememory_extend ack error! check it !!! \n"));
}

// The image.

TEST_F(IspSession, MissingImageErasesAndEndsWith15) {
    setLogLevel("D");
    expectUpToErase({0x00, 0x00, 0x00, 0x00, 0x00});
    EXPECT_EQ(run(), 15);
    const Lines rest = {
        "D  file not exist, filename /vendor/firmware/mcu_test.bin \n",
        "D CMD_EXTENDED_ERASE: len = 0, page_cnt = 1\n",
        "D CMD_EXTENDED_ERASE: send erase pages.\n", "D mcu_serial_read ACK data:0x79\n",
        "D \n [*]. write mcu internal flash.\n",
        "D  file not exist, binfile /vendor/firmware/mcu_test.bin \n",
        // NOLINTNEXTLINE(bugprone-suspicious-missing-comma)
        "D writememory_2mcu: w_addr=0x08000000, w_size=256, all_len=0, w_times=0, "
        "w_last=0\n",
        "D writememory_2mcu: final write mcu internal flash: [0]",
        "E writememory_2mcu: fw update progress < 100\n", "D writememory_2mcu failed. ret = -1\n"};
    EXPECT_THAT(said(), ElementsAreArray(kSaidFirst + kSaidInSynchrony + Lines{kEraseHeading} +
                                         kSaidOfType + kSaidOfEraseCommand + rest + kSaidLast));
}

TEST_F(IspSession, MissingImageOfAGd32F303ErasesEverythingAndEndsWith15) {
    mcu.expect({0x7F}, kAnswerAck);
    mcu.expect({0x06, 0xF9}, kGd32F303Pid);
    mcu.expect({0x44, 0xBB}, kAnswerAck);
    mcu.expect({0xFF, 0xFF, 0x00}, kAnswerAck);
    EXPECT_EQ(run(), 15);
    EXPECT_THAT(said(), ElementsAre("E writememory_2mcu: fw update progress < 100\n"));
}

TEST_F(IspSession, EmptyImageEndsWith15) {
    writeImage({});
    expectUpToErase({0x00, 0x00, 0x00, 0x00, 0x00});
    EXPECT_EQ(run(), 15);
    EXPECT_THAT(said(), ElementsAre("E writememory_2mcu: fw update progress < 100\n"));
}

TEST_F(IspSession, ImageThatCannotBeReadIsWrittenAsZeros) {
    writeImage(imageOf(3));
    board.faults().add({.call = Call::kFopen, .path = kImagePath, .error = EACCES});
    expectUpToErase({0x00, 0x00, 0x00, 0x00, 0x00});
    expectBlock({0x08, 0x00, 0x00, 0x00, 0x08}, {0x00, 0x00, 0x00});
    EXPECT_EQ(run(), 0);
}

TEST_F(IspSession, ImageWithoutMemoryEndsWith15) {
    writeImage(imageOf(300));
    setLogLevel("D");
    expectUpToErase({0x00, 0x00, 0x00, 0x00, 0x00});
    board.faults().add({.call = Call::kMalloc});
    EXPECT_EQ(run(), 15);
    const Lines lines = said();
    EXPECT_THAT(
        Lines(lines.end() - 4, lines.end()),
        ElementsAreArray(Lines{"D \n [*]. write mcu internal flash.\n", "D malloc failed. \n"} +
                         kSaidLast));
}

TEST_F(IspSession, RefusedBlockEndsWith15) {
    const Bytes image = imageOf(300);
    writeImage(image);
    setLogLevel("D");
    expectUpToErase({0x00, 0x00, 0x00, 0x00, 0x00});
    mcu.expect({0x31, 0xCE}, kAnswerNack);
    expectBlock({0x08, 0x00, 0x00, 0x00, 0x08}, part(image, 0, 44));
    EXPECT_EQ(run(), 15);
    const Lines lines = said();
    EXPECT_THAT(Lines(lines.end() - 5, lines.end()),
                ElementsAreArray(Lines{"D writememory_2mcu: final write mcu internal flash: [14]",
                                       "E writememory_2mcu: fw update progress < 100\n",
                                       "D writememory_2mcu failed. ret = -1\n"} +
                                 kSaidLast));
}

// Sizes.

struct IspSizeRow {
    size_t size;
    Bytes eraseFrame;
};
void PrintTo(const IspSizeRow& row, std::ostream* out) { *out << row.size << " bytes"; }
class IspSessionSize : public IspSession, public testing::WithParamInterface<IspSizeRow> {};

TEST_P(IspSessionSize, IsWrittenWholeInBlocksOf256) {
    const IspSizeRow& row = GetParam();
    const Bytes image = imageOf(row.size);
    writeImage(image);
    board.trace().setRecording(false);
    expectUpToErase(row.eraseFrame);
    for (size_t at = 0; at < image.size(); at += 256) {
        Bytes address = {0x08, static_cast<uint8_t>(at >> 16), static_cast<uint8_t>(at >> 8), 0};
        address.push_back(xorOf(address));
        expectBlock(address, part(image, at, std::min<size_t>(256, image.size() - at)));
    }
    EXPECT_EQ(mcu_tool_isp_task(kImagePath, kHeronUart), 0);
    EXPECT_THAT(said(), IsEmpty());
}

// The page list of pages 0 to count - 1, as in AN3155.
Bytes pagesOf4Kb(uint8_t count) {
    Bytes frame = {0x00, static_cast<uint8_t>(count - 1)};
    for (uint8_t page = 0; page < count; ++page) frame = frame + Bytes{0x00, page};
    frame.push_back(xorOf(frame));
    return frame;
}

INSTANTIATE_TEST_SUITE_P(
    Each, IspSessionSize,
    testing::Values(IspSizeRow{1, pagesOf4Kb(1)}, IspSizeRow{77, pagesOf4Kb(1)},
                    IspSizeRow{512, pagesOf4Kb(1)}, IspSizeRow{32640, pagesOf4Kb(8)},
                    IspSizeRow{32768, pagesOf4Kb(9)}, IspSizeRow{40000, pagesOf4Kb(10)},
                    // 257 pages: length (2 + 514) mod 256 = 4; pages 0x00FF and 0x0100
                    // overwrite the start.
                    IspSizeRow{1 << 20, {0x00, 0xFF, 0x01, 0x00, 0xFE}}));

// Which session.

class IspChoice : public IspTest {
  protected:
    int update(const char* file, const char* uart, const char* chip) {
        std::string texts[] = {file, uart, chip};
        return mcu_isp_fw_update(texts[0].data(), texts[1].data(), texts[2].data());
    }
};

struct IspArgumentRow {
    const char *file, *uart, *chip, *named;
};
void PrintTo(const IspArgumentRow& row, std::ostream* out) {
    *out << '\'' << row.file << "' '" << row.uart << "' '" << row.chip << '\'';
}
class IspArgument : public IspChoice, public testing::WithParamInterface<IspArgumentRow> {};

TEST_P(IspArgument, ThatIsUnusableIsNamedAndRefused) {
    const IspArgumentRow& row = GetParam();
    setLogLevel("D");
    board.trace().clear();
    EXPECT_EQ(update(row.file, row.uart, row.chip), -1);
    EXPECT_THAT(said(), ElementsAre(std::string("E mcu_isp_fw_update: invalid ") + row.named +
                                    " is NULL, need to check ini file\n"));
    EXPECT_THAT(done(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Each, IspArgument,
    testing::Values(IspArgumentRow{"", "", "", "file_path"},
                    IspArgumentRow{"UNDEF", "/dev/ttyS3", "gd32", "file_path"},
                    IspArgumentRow{"/vendor/UNDEFINED.bin", "/dev/ttyS3", "gd32", "file_path"},
                    IspArgumentRow{"/vendor/f", "", "", "uart_path"},
                    IspArgumentRow{"/vendor/f", "/dev/UNDEF", "gd32", "uart_path"},
                    IspArgumentRow{"/vendor/f", "/dev/ttyS3", "", "chip_serial"},
                    IspArgumentRow{"/vendor/f", "/dev/ttyS3", "gd32 UNDEF", "chip_serial"}));

TEST_F(IspChoice, MissingArgumentsAreUnusableOnes) {
    char text[] = "gd32";
    EXPECT_EQ(mcu_isp_fw_update(nullptr, text, text), -1);
    EXPECT_EQ(mcu_isp_fw_update(text, nullptr, text), -1);
    EXPECT_EQ(mcu_isp_fw_update(text, text, nullptr), -1);
    EXPECT_THAT(said(),
                ElementsAre("E mcu_isp_fw_update: invalid file_path is NULL, need to check ini "
                            "file\n",
                            "E mcu_isp_fw_update: invalid uart_path is NULL, need to check ini "
                            "file\n",
                            "E mcu_isp_fw_update: invalid chip_serial is NULL, need to check ini "
                            "file\n"));
}

class IspGdStName : public IspChoice, public testing::WithParamInterface<const char*> {};

TEST_P(IspGdStName, TakesTheStm32PathAndLogsItsResult) {
    setLogLevel("I");
    EXPECT_EQ(update("/vendor/f", "/dev/ttyS99", GetParam()), 15);
    EXPECT_THAT(said(),
                ElementsAre(std::string("I mcu_isp_fw_update: file_path =/vendor/f, uart_path = "
                                        "/dev/ttyS99, chip_serial = ") +
                                GetParam() + "\n",
                            "E mcu_serial_init: Open serial port /dev/ttyS99 failed.\n",
                            "E mcu_isp_fw_update: mcu_tool_isp_task failed, ret = 15\n"));
}

// A name that contains both goes the way of the STM32, which is checked first.
INSTANTIATE_TEST_SUITE_P(Each, IspGdStName,
                         testing::Values("gd32f303", "stm32h750", "x-gd32", "n32 or gd32"));

TEST_F(IspChoice, N32NameTakesTheN32PathAndLogsItsResult) {
    setLogLevel("I");
    EXPECT_EQ(update("/vendor/f", "/dev/ttyS99", "n32g45x"), -1);
    EXPECT_THAT(said(),
                ElementsAre("I mcu_isp_fw_update: file_path =/vendor/f, uart_path = "
                            "/dev/ttyS99, chip_serial = n32g45x\n",
                            "E set_opt: Open serial port /dev/ttyS99 failed.\n",
                            "E mcu_isp_fw_update: n32_uart_isp_upgrade failed, ret = -1\n"));
}

class IspStrangeName : public IspChoice, public testing::WithParamInterface<const char*> {};

TEST_P(IspStrangeName, CountsAsSuccessWithoutProgramming) {
    board.trace().clear();
    EXPECT_EQ(update("/vendor/f", kHeronUart, GetParam()), 0);
    EXPECT_THAT(said(), IsEmpty());
    EXPECT_THAT(done(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Each, IspStrangeName,
                         testing::Values("N32G45X", "GD32F303", "STM32", "ttyS3", "esp32"));

TEST_F(IspChoice, SuccessIsNotLoggedAsAnError) {
    const Bytes image = imageOf(1);
    writeImage(image);
    mcu.expect({0x7F}, kAnswerAck);
    mcu.expect({0x06, 0xF9}, kGd32F470Pid);
    mcu.expect({0x44, 0xBB}, kAnswerAck);
    mcu.expect({0x00, 0x00, 0x00, 0x00, 0x00}, kAnswerAck);
    expectBlock({0x08, 0x00, 0x00, 0x00, 0x08}, image);
    EXPECT_EQ(update(kImagePath, kHeronUart, "gd32f470"), 0);
    EXPECT_THAT(said(), IsEmpty());
}

}  // namespace quil::tests
