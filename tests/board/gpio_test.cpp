// The board's GPIO lines, in each way that a host can drive them.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "board/board.h"
#include "testing/captured_output.h"

namespace {

using namespace quil::board;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kBoot0[] = "/sys/class/quilgpios/MCU_BOOT0/value";
constexpr char kNrst[] = "/sys/class/quilgpios/MCU_NRST/value";

std::vector<std::string> edges(const Board& board) {
    std::vector<std::string> found;
    for (const Event& event : const_cast<Board&>(board).trace().events(EventKind::kGpio)) {
        found.push_back(event.source + " " + event.text);
    }
    return found;
}

TEST(BoardGpio, FreshBoardHasTheMcuOutOfResetAndBoot0Low) {
    Board board;
    EXPECT_EQ(board.gpio().at("MCU_BOOT0").level(), 0);
    EXPECT_EQ(board.gpio().at("MCU_NRST").level(), 1);
    EXPECT_EQ(board.gpio().find("MCU_BOOT1"), nullptr);
    EXPECT_THROW(board.gpio().at("MCU_BOOT1"), std::out_of_range);
}

TEST(BoardGpio, ShellMovesALineAndEachChangeIsAnEdge) {
    Board board;
    EXPECT_EQ(system("echo 1 > /sys/class/quilgpios/MCU_BOOT0/value"), 0);
    EXPECT_EQ(system("echo 1 > /sys/class/quilgpios/MCU_BOOT0/value"), 0);
    EXPECT_EQ(system("echo 0 > /sys/class/quilgpios/MCU_NRST/value"), 0);
    EXPECT_THAT(edges(board), ElementsAre("MCU_BOOT0 1", "MCU_NRST 0"));
}

TEST(BoardGpio, ValueFileIsReadAndWrittenByDescriptor) {
    Board board;
    const int fd = open(kNrst, O_RDWR);
    ASSERT_GE(fd, 0);
    char text[8] = {};
    EXPECT_EQ(read(fd, text, sizeof(text)), 2);
    EXPECT_STREQ(text, "1\n");
    EXPECT_EQ(read(fd, text, sizeof(text)), 0);
    EXPECT_EQ(write(fd, "0", 1), 1);
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(board.gpio().at("MCU_NRST").level(), 0);
}

TEST(BoardGpio, ValueFileIsReadAndWrittenByStream) {
    Board board;
    FILE* out = fopen(kBoot0, "w");
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(fputs("1", out), 1);
    EXPECT_EQ(fclose(out), 0);
    FILE* in = fopen(kBoot0, "r");
    ASSERT_NE(in, nullptr);
    EXPECT_EQ(fgetc(in), '1');
    EXPECT_EQ(fclose(in), 0);
    EXPECT_THAT(edges(board), ElementsAre("MCU_BOOT0 1"));
}

TEST(BoardGpio, ValueFileIsThereToLookAtAndALineThatIsNotHasNone) {
    Board board;
    struct stat info {};
    EXPECT_EQ(access(kBoot0, F_OK), 0);
    EXPECT_EQ(stat(kBoot0, &info), 0);
    EXPECT_EQ(remove(kBoot0), -1);
    EXPECT_EQ(access("/sys/class/quilgpios/MCU_BOOT1/value", F_OK), -1);
    EXPECT_EQ(open("/sys/class/quilgpios/MCU_BOOT1/value", O_WRONLY), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(BoardGpio, DriverTakesOneDigitOnly) {
    Board board;
    const auto errors = quil::tests::standardErrorOf([] {
        EXPECT_EQ(system("echo high > /sys/class/quilgpios/MCU_BOOT0/value"), 1 << 8);
        EXPECT_EQ(system("echo 2 > /sys/class/quilgpios/MCU_BOOT0/value"), 1 << 8);
    });
    EXPECT_EQ(errors, "echo: write: Invalid argument\necho: write: Invalid argument\n");
    EXPECT_THAT(edges(board), IsEmpty());
}

TEST(BoardGpio, FaultsFailOrLoseAWriteAndFailARead) {
    Board board;
    board.faults().add({.call = Call::kGpioSet, .path = "MCU_BOOT0", .error = EIO});
    board.faults().add({.call = Call::kGpioSet, .path = "MCU_BOOT0", .lostSilently = true});
    board.faults().add({.call = Call::kGpioGet, .path = "MCU_BOOT0", .error = EIO});
    GpioLine& line = board.gpio().at("MCU_BOOT0");
    EXPECT_EQ(line.drive(1), EIO);
    EXPECT_EQ(line.drive(1), 0);
    EXPECT_EQ(line.level(), 0);
    EXPECT_EQ(line.read(), -EIO);
    EXPECT_EQ(line.drive(1), 0);
    EXPECT_EQ(line.read(), 1);
}

TEST(BoardGpio, StuckLineStaysWhereItIsUntilItIsLetGo) {
    Board board;
    GpioLine& line = board.gpio().at("MCU_NRST");
    line.stickAt(0);
    EXPECT_EQ(line.drive(1), 0);
    EXPECT_EQ(line.read(), 0);
    line.stickAt(-1);
    EXPECT_EQ(line.drive(1), 0);
    EXPECT_EQ(line.read(), 1);
}

TEST(BoardGpio, NumberedLinesTellWhoListens) {
    Board board;
    std::vector<int> heard;
    GpioLine& line = board.gpio().add(701, 0);
    line.onEdge([&](int level) { heard.push_back(level); });
    line.drive(1);
    line.drive(1);
    line.setLevel(0);
    EXPECT_THAT(heard, ElementsAre(1, 0));
    EXPECT_THAT(edges(board), ElementsAre("gpio 701 1", "gpio 701 0"));
    EXPECT_EQ(board.gpio().find(701), &line);
    EXPECT_EQ(board.gpio().find(702), nullptr);
}

TEST(BoardGpio, OneNumberForAllLinesOfTheFpgaIsOneLine) {
    const TemporaryDirectory directory;
    const auto file = directory.path() / "rootfs/vendor/etc/product.ini";
    createBoardDirectory(directory.path(), Product::kHeron);
    std::ofstream(file) << "[fpga]\nfpga_control_gpio = 5\nfpga_config_gpio = 5\n"
                           "fpga_done_gpio = 5\n";
    Board board(directory.path());
    GpioLine& line = board.gpio().at(5);
    EXPECT_EQ(&board.fpga().lines().control, &line);
    EXPECT_EQ(&board.fpga().lines().config, &line);
    EXPECT_EQ(&board.fpga().lines().done, &line);
    EXPECT_EQ(line.drive(0), 0);
    EXPECT_FALSE(board.fpga().isConfigured());
    EXPECT_EQ(line.drive(1), 0);
    board.runFor(std::chrono::seconds(1));
    EXPECT_TRUE(board.fpga().isConfigured());
    EXPECT_EQ(line.level(), 1);
}

TEST(BoardSysfs, AttributeIsWhatItsDriverShowsAndStores) {
    Board board;
    std::string stored;
    board.sysfs().add("/sys/class/ethernet/phyreg", {nullptr, [&](std::string_view text) {
                                                         stored = text;
                                                         return 0;
                                                     }});
    EXPECT_EQ(system("echo w 0x1f 0xd08 > /sys/class/ethernet/phyreg"), 0);
    EXPECT_EQ(stored, "w 0x1f 0xd08\n");
    EXPECT_EQ(open("/sys/class/ethernet/phyreg", O_RDONLY), -1);
    EXPECT_EQ(errno, EACCES);
    board.sysfs().remove("/sys/class/ethernet/phyreg");
    EXPECT_EQ(access("/sys/class/ethernet/phyreg", F_OK), -1);
}

}  // namespace
