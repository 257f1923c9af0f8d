// Power cuts at a chosen event: the state that they leave, and how the host's calls end.
#include <cutils/properties.h>
#include <errno.h>
#include <poll.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "board/fpga/fpga_image.h"
#include "platform/vendor/include/quil_hal.h"
#include "testing/cut_sweep.h"
#include "tests/board/boot_loader_test.h"

namespace quil::tests {
namespace {

using namespace quil::board;
using std::chrono::seconds;
using testing::IsEmpty;

namespace fs = std::filesystem;

// A board directory whose MCU has version V0.9.0; restore() undoes what an update changed.
class BoardPowerCut : public testing::Test {
  protected:
    BoardPowerCut() {
        createBoardDirectory(directory, Product::kHeron, "V0.9.0");
        old = readWholeFile(directory / "mcu/flash").value();
    }

    void restore() const { writeWholeFile(directory / "mcu/flash", old); }

    // Updates the first pages as a host does. The answers do not matter.
    static void update(Board& board, const std::string& image) {
        const int line = open("/dev/ttyS3", O_RDWR | O_NOCTTY | O_NONBLOCK);
        termios settings{};
        settings.c_cflag = CS8 | CREAD | CLOCAL;
        cfsetispeed(&settings, B115200);
        cfsetospeed(&settings, B115200);
        tcsetattr(line, TCSANOW, &settings);
        system("echo 1 > /sys/class/quilgpios/MCU_BOOT0/value");
        pulseReset();
        exchange(line, {0x7F});
        exchange(line, {0x44, 0xBB});
        exchange(line, {0, 3, 0, 0, 0, 1, 0, 2, 0, 3, 3});
        for (size_t at = 0; at < image.size(); at += 256) writeBlock(line, image, at);
        close(line);
        system("echo 0 > /sys/class/quilgpios/MCU_BOOT0/value");
        pulseReset();
        if (!board.powerIsCut()) property_set("persist.quil.mcu_fw_version", "V1.0.0");
    }

    const TemporaryDirectory scratch;
    const fs::path& directory = scratch.path();
    const CutSweep sweep{directory, [this](Board& board) { update(board, image); }};
    std::string old;
    const std::string image = makeMcuImage(McuKind::kGd32F303, "V1.0.0", 2048);

  private:
    static void pulseReset() {
        system("echo 0 > /sys/class/quilgpios/MCU_NRST/value");
        usleep(1000);
        system("echo 1 > /sys/class/quilgpios/MCU_NRST/value");
        usleep(1000);
    }
    static void exchange(int line, const Bytes& bytes) {
        [[maybe_unused]] const auto sent = write(line, bytes.data(), bytes.size());
        usleep(100000);
        uint8_t answer[16];
        [[maybe_unused]] const auto got = read(line, answer, sizeof(answer));
    }
    static void writeBlock(int line, const std::string& image, size_t at) {
        exchange(line, {0x31, 0xCE});
        const auto high = static_cast<uint8_t>(at >> 8);
        exchange(line, {8, 0, high, 0, static_cast<uint8_t>(8 ^ high)});
        Bytes frame = {0xFF};
        frame.insert(frame.end(), image.begin() + static_cast<ptrdiff_t>(at),
                     image.begin() + static_cast<ptrdiff_t>(at) + 256);
        uint8_t check = 0;
        for (const uint8_t byte : frame) check ^= byte;
        frame.push_back(check);
        exchange(line, frame);
    }
};

TEST_F(BoardPowerCut,
       AtEveryEventOfAnUpdateLeavesABoardThatTheNextUpdateMendsAndStartsNoHalfImage) {
    std::map<std::string, int> found;
    for (const CutState& state : sweep.statesIn({})) {
        SCOPED_TRACE(nameOf(state.first));
        sweep.boot(state.files, [&](Board& mended) {
            const std::string started = mended.mcuChip().starts().front().version;
            ++found[started];
            EXPECT_THAT(started, testing::AnyOf("", "V0.9.0", "V1.0.0"));
            EXPECT_EQ(mended.mcuChip().version(), "V1.0.0");
            EXPECT_THAT(mended.violations(), IsEmpty());
        });
    }
    EXPECT_GT(found[""], 20) << "cuts in the middle";
    EXPECT_GE(found["V0.9.0"], 1);
    EXPECT_GE(found["V1.0.0"], 2) << "before and after the version is noted";
}

// Sweeps rely on it: they judge what a cut would leave without making it.
TEST_F(BoardPowerCut, LeavesWhatTheUncutRunTellsOfIt) {
    uint64_t cuts = 0;
    for (const CutState& state : sweep.statesIn({})) {
        cuts += state.cuts;
        EXPECT_EQ(sweep.leftBy(state.first, {}), state.files) << nameOf(state.first);
    }
    EXPECT_GT(cuts, 200U);
}

TEST_F(BoardPowerCut, RunWithACutIsTheUncutRunUntilThen) {
    std::vector<std::string> whole, cut;
    {
        Board board(directory);
        update(board, image);
        for (const Event& event : board.trace().events()) whole.push_back(toLine(event));
    }
    restore();
    Board board(directory);
    board.cutPowerAt({60, CutPosition::kAfter});
    update(board, image);
    for (const Event& event : board.trace().events()) cut.push_back(toLine(event));
    ASSERT_EQ(cut.size(), 61U);
    whole.resize(61);
    EXPECT_EQ(cut, whole);
}

TEST_F(BoardPowerCut, EveryCallOfTheHostFailsAtOnceAndTimeStandsStill) {
    Board board(directory);
    const int line = open("/dev/ttyS3", O_RDWR | O_NOCTTY);
    ASSERT_GE(line, 0);
    board.cutPowerAt({board.trace().count(), CutPosition::kBefore});
    usleep(1000);
    EXPECT_TRUE(board.powerIsCut());
    const Nanos then = board.now();
    uint8_t byte = 0;
    termios settings{};
    struct stat info {};
    pollfd entry{line, POLLIN, 0};
    EXPECT_EQ(write(line, &byte, 1), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(read(line, &byte, 1), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(tcgetattr(line, &settings), -1);
    EXPECT_EQ(fcntl(line, F_GETFL), -1);
    EXPECT_EQ(poll(&entry, 1, 1000), -1);
    EXPECT_EQ(open("/vendor/etc/product.ini", O_RDONLY), -1);
    EXPECT_EQ(fopen("/vendor/etc/product.ini", "r"), nullptr);
    EXPECT_EQ(access("/vendor/etc/product.ini", F_OK), -1);
    EXPECT_EQ(stat("/vendor/etc/product.ini", &info), -1);
    EXPECT_EQ(system("echo 1 > /sys/class/quilgpios/MCU_BOOT0/value"), -1);
    EXPECT_EQ(property_set("persist.a", "b"), -1);
    EXPECT_EQ(board.gpio().at("MCU_NRST").drive(0), EIO);
    sleep(10);
    EXPECT_EQ(close(line), 0);
    EXPECT_EQ(board.now(), then);
    EXPECT_EQ(board.properties().get("persist.a"), "");
    EXPECT_EQ(board.gpio().at("MCU_BOOT0").level(), 0);
}

TEST_F(BoardPowerCut, LoopThatYieldsUntilItIsLateEndsWhileTheBoardsTimeStandsStill) {
    Board board(directory);
    board.cutPowerAt({board.trace().count(), CutPosition::kBefore});
    usleep(1000);
    const Nanos then = board.now();
    const auto milliseconds = [] {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return now.tv_sec * 1000 + now.tv_nsec / 1000000;
    };
    const auto late = milliseconds() + 1000;
    int looks = 0;
    for (; looks < 1001 && milliseconds() < late; ++looks) sched_yield();
    EXPECT_EQ(looks, 1000);
    EXPECT_EQ(board.now(), then);
}

TEST_F(BoardPowerCut, WakesWhoeverWaits) {
    Board board(directory);
    board.cutPowerAt({board.trace().count(), CutPosition::kBefore});
    std::mutex mutex;
    std::condition_variable condition;
    bool woken = false;
    std::thread waiter([&] {
        std::unique_lock<std::mutex> lock(mutex);
        condition.wait_for(lock, seconds(5));
        woken = true;
    });
    std::this_thread::yield();
    usleep(1000);
    waiter.join();
    EXPECT_TRUE(woken);
    EXPECT_LT(board.now(), seconds(1));
}

TEST_F(BoardPowerCut, BeforeAfterAndInsideAFlashOperationLeaveItUndoneDoneAndTorn) {
    uint64_t eraseEvent = 0;
    {
        Board board(directory);
        update(board, image);
        for (const Event& event : board.trace().events()) {
            if (event.kind == EventKind::kFlash && event.text == "erase 4 pages") break;
            ++eraseEvent;
        }
    }
    const auto leaves = [&](CutPosition position) {
        restore();
        {
            Board board(directory);
            board.cutPowerAt({eraseEvent, position});
            update(board, image);
        }
        return readWholeFile(directory / "mcu/flash").value();
    };
    EXPECT_EQ(leaves(CutPosition::kBefore), old);
    const std::string torn = leaves(CutPosition::kInside);
    EXPECT_NE(torn, old);
    EXPECT_EQ(torn.substr(8000), old.substr(8000)) << "the last bytes were not reached";
    EXPECT_EQ(leaves(CutPosition::kAfter), "");
}

TEST_F(BoardPowerCut, InsideAStepOfTheSerialFlashDoesAPartOfIt) {
    constexpr char kWrittenBefore = '\x5A';
    constexpr int kFpgaControl = 441;
    const std::string written(0x10000, kWrittenBefore), image = makeFpgaImage("V9.9.9", 0x10000);
    writeWholeFile(directory / "mtd0", written);
    writeWholeFile(directory / "rootfs/vendor/firmware/fpga_Heron.bin", image);
    const CutSweep steps(directory, [](Board&) {
        hal_gpio_setvalue(kFpgaControl, 0);
        system("mtd_debug erase /dev/mtd0 0 0x10000");
        system("mtd_debug write /dev/mtd0 0 65536 /vendor/firmware/fpga_Heron.bin");
    });
    int halfErased = 0, halfProgrammed = 0;
    for (const CutState& state : steps.statesIn({})) {
        const auto cells = state.files.find("mtd0");
        if (cells == state.files.end()) continue;
        const std::string& left = cells->second.value();
        const auto rest = std::count(left.begin(), left.end(), kWrittenBefore);
        halfErased += rest > 0xFFF && left != written ? 1 : 0;
        const bool isPart = !left.empty() && left.size() < image.size();
        halfProgrammed += isPart && image.rfind(left, 0) == 0 ? 1 : 0;
    }
    EXPECT_GT(halfErased, 0);
    EXPECT_GT(halfProgrammed, 0);
}

}  // namespace
}  // namespace quil::tests
