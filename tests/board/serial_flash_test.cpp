// The serial flash and its command line tool.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <thread>

#include "board/board.h"
#include "platform/vendor/include/quil_hal.h"
#include "testing/captured_output.h"
#include "testing/files.h"

namespace {

using namespace quil::board;
using namespace std::chrono_literals;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

class BoardSerialFlash : public testing::Test {
  protected:
    // Runs a line with PROG_B held low, and returns its exit code.
    int run(const std::string& line) {
        hal_gpio_setvalue(441, 0);
        int status = -1;
        out = quil::tests::standardOutputOf(
            [&] { err = quil::tests::standardErrorOf([&] { status = system(line.c_str()); }); });
        return status >> 8;
    }
    std::string file(const std::string& path) const {
        return quil::tests::contentOf(board.hostPath(path));
    }

    Board board;
    std::string out, err;
};

TEST_F(BoardSerialFlash, EraseLeavesNothingButOnesAndTakesTheTimeOfItsSectors) {
    const auto start = board.now();
    EXPECT_EQ(run("mtd_debug erase /dev/mtd0 0 0xD00000"), 0);
    EXPECT_EQ(board.now() - start, 208 * 150ms);
    EXPECT_EQ(out, "Erased 13631488 bytes from address 0x00000000 in flash\n");
    EXPECT_EQ(board.flash().usedSize(), 0U);
    EXPECT_THAT(board.flash().read(0, 65536), Each(0xFF));
    EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(BoardSerialFlash, WriteProgramsTheFileAndTakesTheTimeOfItsPages) {
    ASSERT_EQ(run("mtd_debug erase /dev/mtd0 0 0xD00000"), 0);
    const auto start = board.now();
    EXPECT_EQ(run("mtd_debug write /dev/mtd0 0 65536 /vendor/firmware/fpga_Heron.bin"), 0);
    EXPECT_EQ(board.now() - start, 256 * 700us);
    EXPECT_EQ(out,
              "Copied 65536 bytes from /vendor/firmware/fpga_Heron.bin to address 0x00000000 in "
              "flash\n");
    const auto cells = board.flash().read(0, 65536);
    EXPECT_EQ(std::string(cells.begin(), cells.end()), file("/vendor/firmware/fpga_Heron.bin"));
    EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(BoardSerialFlash, ReadBringsTheCellsToAFile) {
    EXPECT_EQ(run("mtd_debug read /dev/mtd0 65534 4 /vendor/firmware/cells"), 0);
    const auto cells = board.flash().read(65534, 2);
    EXPECT_EQ(file("/vendor/firmware/cells"), std::string(cells.begin(), cells.end()) + "\xFF\xFF");
}

TEST_F(BoardSerialFlash, ProgrammingOnlyClearsBits) {
    board.writeFile("/vendor/firmware/a", "\x0F\xF0");
    board.writeFile("/vendor/firmware/b", "\x3C\x3C");
    ASSERT_EQ(run("mtd_debug write /dev/mtd0 0x100000 2 /vendor/firmware/a"), 0);
    EXPECT_THAT(board.violations(), IsEmpty());
    ASSERT_EQ(run("mtd_debug write /dev/mtd0 0x100000 2 /vendor/firmware/b"), 0);
    EXPECT_THAT(board.flash().read(0x100000, 3), ElementsAre(0x0C, 0x30, 0xFF));
    EXPECT_THAT(board.violations(), ElementsAre("/dev/mtd0: page 0x100000 is not erased"));
}

TEST_F(BoardSerialFlash, UseWhileProgBIsHighIsAViolation) {
    EXPECT_EQ(system("mtd_debug erase /dev/mtd0 0xF00000 0x10000 > /dev/null"), 0);
    EXPECT_THAT(board.violations(), ElementsAre("fpga: the flash is used while PROG_B is high"));
}

struct BadCommand {
    const char* name;
    const char* line;
    const char* error;
};
void PrintTo(const BadCommand& row, std::ostream* out) { *out << row.line; }

class BoardSerialFlashRefuses : public BoardSerialFlash,
                                public testing::WithParamInterface<BadCommand> {};

TEST_P(BoardSerialFlashRefuses, CommandWithExitCode1) {
    const auto before = board.flash().read(0, 65536);
    EXPECT_EQ(run(GetParam().line), 1);
    EXPECT_EQ(err, std::string(GetParam().error) + "\n");
    EXPECT_EQ(board.flash().read(0, 65536), before);
}

constexpr char kUsage[] = "usage: mtd_debug erase|write|read DEVICE OFFSET LENGTH [FILE]";
INSTANTIATE_TEST_SUITE_P(
    All, BoardSerialFlashRefuses,
    testing::Values(
        BadCommand{"NoVerb", "mtd_debug", kUsage},
        BadCommand{"UnknownVerb", "mtd_debug format /dev/mtd0 0 1", kUsage},
        BadCommand{"NoLength", "mtd_debug erase /dev/mtd0 0", kUsage},
        BadCommand{"NoNumber", "mtd_debug erase /dev/mtd0 0 all", kUsage},
        BadCommand{"AnotherDevice", "mtd_debug erase /dev/mtd1 0 0x10000",
                   "open(): No such file or directory"},
        BadCommand{"HalfASector", "mtd_debug erase /dev/mtd0 0 0x8000",
                   "MEMERASE: Invalid argument"},
        BadCommand{"BehindTheEnd", "mtd_debug erase /dev/mtd0 0xFF0000 0x20000",
                   "MEMERASE: Invalid argument"},
        BadCommand{"MissingFile", "mtd_debug write /dev/mtd0 0x100000 1 /vendor/firmware/none",
                   "fopen(): No such file or directory"},
        BadCommand{"FileTooShort",
                   "mtd_debug write /dev/mtd0 0 4294967295 /vendor/firmware/fpga_Heron.bin",
                   "fread(): the file is too short"},
        BadCommand{"WriteBehindTheEnd",
                   "mtd_debug write /dev/mtd0 0xFFFFFF 2 /vendor/firmware/fpga_Heron.bin",
                   "write(): No space left on device"}),
    [](const auto& row) { return row.param.name; });

TEST_F(BoardSerialFlash, WithoutItsFileTheToolIsNotFound) {
    std::filesystem::remove(board.hostPath("/vendor/bin/mtd_debug"));
    EXPECT_EQ(run("mtd_debug erase /dev/mtd0 0 0xD00000"), 127);
}

TEST_F(BoardSerialFlash, EraseThatFailsLeavesTheRestAsItWas) {
    board.faults().add({.call = Call::kFlashErase, .path = "/dev/mtd0", .error = EIO, .after = 3});
    board.flash().damage(0x30000, 0x01);
    EXPECT_EQ(run("mtd_debug erase /dev/mtd0 0 0xD00000"), 1);
    EXPECT_EQ(err, "MEMERASE: Input/output error\n");
    EXPECT_THAT(board.flash().read(0, 4), Each(0xFF));
    EXPECT_THAT(board.flash().read(0x30000, 1), ElementsAre(0xFE));
}

TEST_F(BoardSerialFlash, PageThatIsLostSilentlyStaysErased) {
    ASSERT_EQ(run("mtd_debug erase /dev/mtd0 0 0xD00000"), 0);
    board.faults().add(
        {.call = Call::kFlashProgram, .path = "/dev/mtd0", .after = 1, .lostSilently = true});
    EXPECT_EQ(run("mtd_debug write /dev/mtd0 0 65536 /vendor/firmware/fpga_Heron.bin"), 0);
    EXPECT_THAT(board.flash().read(256, 256), Each(0xFF));
}

TEST_F(BoardSerialFlash, ContentsOutliveThePower) {
    ASSERT_EQ(run("mtd_debug erase /dev/mtd0 0 0xD00000"), 0);
    ASSERT_EQ(run("mtd_debug write /dev/mtd0 0 65536 /vendor/firmware/fpga_Heron.bin"), 0);
    Scheduler unused;
    BoardServices off(unused, std::make_unique<DirectoryStore>(board.directory()));
    const SerialFlash again(off);
    EXPECT_EQ(again.read(0, 70000), board.flash().read(0, 70000));
    EXPECT_EQ(std::filesystem::file_size(board.directory() / "mtd0"), again.usedSize());
}

TEST_F(BoardSerialFlash, DamageIsWhereItWasPut) {
    board.flash().damage(0x200000, 0x81);
    EXPECT_THAT(board.flash().read(0x1FFFFF, 3), ElementsAre(0xFF, 0x7E, 0xFF));
    EXPECT_THAT(board.flash().read(0xFFFFFF, 9), ElementsAre(0xFF));
}

TEST(BoardSerialFlashAmongThreads, OthersRunOnWhileTheShellErases) {
    Board board;
    Nanos woken{0};
    std::thread other([&] {
        std::this_thread::sleep_for(1ms);
        woken = board.now();
    });
    EXPECT_EQ(hal_gpio_setvalue(441, 0), 0);
    EXPECT_EQ(system("mtd_debug erase /dev/mtd0 0 65536 > /dev/null"), 0);
    other.join();
    EXPECT_EQ(woken, 1ms);
    EXPECT_EQ(board.now(), 150ms);
}

TEST(BoardSerialFlashInRealTime, ProgrammingOfAPageByTheShellComesToItsEnd) {
    Board board(Product::kHeron, {.realtime = true});
    EXPECT_EQ(hal_gpio_setvalue(441, 0), 0);
    const auto start = board.now();
    EXPECT_EQ(system("mtd_debug write /dev/mtd0 0xF00000 256 /vendor/firmware/fpga_Heron.bin "
                     "> /dev/null"),
              0);
    EXPECT_GE(board.now() - start, 700us);
}

}  // namespace
