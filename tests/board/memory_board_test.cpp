// A board in memory is a board in a directory that is never written, and one that comes after
// another is like the first.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <functional>

#include "board/board.h"
#include "board/mcu/mcu_image.h"
#include "host/hosting_component.h"
#include "selftest/self_test.h"
#include "testing/library_test.h"

namespace quil::tests {
namespace {

using board::Board;
using board::OverlayStore;
using board::Product;

std::shared_ptr<OverlayStore> newMemory(std::string_view flashedMcu = "") {
    return std::make_shared<OverlayStore>(board::factoryBoard(Product::kHeron, flashedMcu));
}

// The MCU is updated, the FPGA loaded, the self-test run, its result file removed and written.
std::string traceOfAWorkingDay(Board& board) {
    const FreshLibrary library;
    networkIsUp();
    standardOutputOf([] {
        host::HostingComponent host;
        host.start();
        std::array<unsigned char, 1024> record{};
        runSelfTestAndGetResult(record.data(), record.size());
        runSelfTestAndGetResult(record.data(), record.size());
    });
    return board.trace().toText();
}

std::string traceInMemory() {
    Board board(newMemory("V0.9.0"));
    return traceOfAWorkingDay(board);
}

// What a file's calls give, on a board of its own.
class FileCalls {
  public:
    std::string results() {
        open("/sdcard/a", O_RDONLY);
        open("/sdcard/a", O_RDWR | O_CREAT | O_EXCL);
        transfer("0123456789");
        open("/sdcard/a", O_WRONLY | O_CREAT | O_EXCL);
        open("/sdcard//./a", O_WRONLY | O_APPEND);
        transfer("abc");
        open("/sdcard/a", O_RDONLY);
        transfer("x");
        open("/sdcard/a/", O_RDONLY);
        open("/sdcard", O_WRONLY);
        open("/sdcard/", O_RDONLY);
        open("/sdcard/a", O_RDONLY | O_DIRECTORY);
        open("/sdcard/none/a", O_WRONLY | O_CREAT);
        for (const char* mode : {"r", "a+", "r+", "w", "wx", "a", "w+", "r"}) stream(mode);
        for (const char* path :
             {"/sdcard/a", "/sdcard/b", "/vendor/etc", "/sdcard/../vendor/etc"}) {
            look(path);
        }
        note("remove", remove("/sdcard/a"));
        note("remove", remove("/sdcard/a"));
        open("/sdcard/a", O_RDONLY);
        look("/sdcard/a");
        open("/sdcard/a", O_WRONLY | O_CREAT | O_TRUNC);
        look("/sdcard/a");
        return mText;
    }

  private:
    void note(const char* what, long result) {
        mText += std::string(what) + " " + std::to_string(result);
        if (result < 0) mText += std::string(" ") + strerrorname_np(errno);
        mText += "\n";
    }
    void open(const char* path, int flags) {
        if (mFile >= 0) close(mFile);
        mFile = ::open(path, flags, 0666);
        note("open", std::min(mFile, 0));
    }
    void transfer(std::string_view text) {
        std::array<char, 64> read{};
        note("write", write(mFile, text.data(), text.size()));
        const ssize_t got = ::read(mFile, read.data(), read.size());
        note("read", got);
        mText.append(read.data(), static_cast<size_t>(std::max<ssize_t>(0, got))).append("\n");
    }
    void stream(const char* mode) {
        FILE* file = fopen("/sdcard/a", mode);
        note(mode, file == nullptr ? -1 : 0);
        if (file == nullptr) return;
        std::array<char, 64> read{};
        const size_t got = fread(read.data(), 1, 4, file);
        mText.append(read.data(), got).append("\n");
        fseek(file, 0, SEEK_END);
        note("at", ftell(file));
        fputs("more", file);
        fseek(file, 2, SEEK_SET);
        note("byte", fgetc(file));
        fclose(file);
    }
    void look(const char* path) {
        struct stat info {};
        note("access", access(path, F_OK));
        note("stat", stat(path, &info));
        const bool isFile = S_ISREG(info.st_mode);
        mText += isFile ? std::to_string(info.st_size) + "\n" : "no file\n";
    }

    int mFile = -1;
    std::string mText;
};

TEST(BoardInMemory, HasTheTraceOfABoardInADirectory) {
    std::string inDirectory;
    {
        Board board(Product::kHeron, {.flashedMcuVersion = "V0.9.0"});
        inDirectory = traceOfAWorkingDay(board);
    }
    EXPECT_THAT(inDirectory, testing::HasSubstr("program 0x08000000"));
    EXPECT_EQ(traceInMemory(), inDirectory);
}

TEST(BoardInMemory, UsedBeforeLeavesNothingToTheNextOne) {
    const std::string first = traceInMemory();
    {
        Board board(newMemory());
        board::McuFlash& flash = board.mcuChip().flash();
        flash.load(std::string(flash.cells().size(), '\x5A'));
        flash.wear(7, {.stuckLow = 0xFF});
        flash.setReadoutProtected(true);
        board.flash().preload(std::string(board::SerialFlash::kSize, '\x5A'));
        board.writeFile("/vendor/etc/product.ini", "[mcu]\nmcu_serial = n32g45x\n");
        board.properties().set("persist.quil.mcu_fw_version", "V7");
        board.probes().setHealth("rtc", board::Health::kFaulty);
        board.gpio().at(board::kGpioNrst).drive(0);
        board.faults().add({.call = board::Call::kSystem, .error = EIO, .times = -1});
        EXPECT_NE(traceOfAWorkingDay(board), first);
    }
    EXPECT_EQ(traceInMemory(), first);
}

TEST(BoardInMemory, FilesAreReadWrittenAndRemovedAsInADirectory) {
    std::string inDirectory;
    {
        const Board board(Product::kHeron);
        inDirectory = FileCalls().results();
    }
    const Board board(newMemory());
    EXPECT_EQ(FileCalls().results(), inDirectory);
}

TEST(BoardInMemory, KeepsItsFilesInItsStoreAndLeavesTheOneBelowAsItIs) {
    const auto factory = board::factoryBoard(Product::kHeron);
    const auto store = std::make_shared<OverlayStore>(factory);
    {
        Board board(store);
        board.writeFile("/sdcard/a", "1");
        EXPECT_EQ(board.shell().run("echo 2 >>/sdcard/a; cat /sdcard/a >/opt/b"), 0);
        EXPECT_EQ(remove("/vendor/bin/mtd_debug"), 0);
    }
    EXPECT_EQ(store->read("rootfs/opt/b"), "12\n");
    EXPECT_EQ(store->read("rootfs/vendor/bin/mtd_debug"), std::nullopt);
    EXPECT_NE(factory->read("rootfs/vendor/bin/mtd_debug"), std::nullopt);
    EXPECT_EQ(factory->read("rootfs/opt/b"), std::nullopt);
    Board board(store);
    EXPECT_EQ(access("/opt/b", R_OK | W_OK), 0);
    EXPECT_EQ(board.shell().run("mtd_debug erase /dev/mtd0 0 65536") >> 8, 127);
}

}  // namespace
// A caller of the library may hand in no buffer at all.
TEST(BoardFiles, BufferThatIsNotThereIsRefusedAsTheKernelDoes) {
    const Board board(newMemory());
    void* volatile nowhere = nullptr;
    for (const char* path :
         {"/dev/ttyS3", "/dev/fpga_spi", "/sdcard/a", "/sys/class/quilgpios/MCU_NRST/value"}) {
        const int fd = ::open(path, O_RDWR | O_CREAT | O_NONBLOCK, 0600);
        ASSERT_GE(fd, 0) << path;
        EXPECT_EQ(write(fd, nowhere, 4), -1) << path;
        EXPECT_EQ(errno, EFAULT) << path;
        EXPECT_EQ(read(fd, nowhere, 4), -1) << path;
        EXPECT_EQ(errno, EFAULT) << path;
        close(fd);
    }
}

}  // namespace quil::tests
