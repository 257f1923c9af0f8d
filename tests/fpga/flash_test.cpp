// The FPGA's configuration flash: format, write, update, DONE, and the image's size.
#include <dlfcn.h>
#include <errno.h>
#include <unistd.h>

#include <thread>

#include "fpga/flash_update.h"
#include "tests/fpga/fpga_test.h"

namespace quil::tests {

using board::Call;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char kTool[] = "/vendor/bin/mtd_debug";
constexpr char kEraseCommand[] = "mtd_debug erase /dev/mtd0 0 0xD00000";
constexpr char kWrite[] = "mtd_debug write /dev/mtd0 0 1000 /vendor/firmware/fpga_Heron.bin";

bool gTellFails = false;

}  // namespace

// Replaces libc's: on a workstation, no file makes ftell fail.
extern "C" __attribute__((visibility("default"))) long ftell(FILE* file) {
    static auto* const real = reinterpret_cast<long (*)(FILE*)>(dlsym(RTLD_NEXT, "ftell"));
    if (!gTellFails) return real(file);
    errno = EIO;
    return -1;
}

class FpgaFlash : public FpgaTest {
  protected:
    FpgaFlash() {
        parseProduct();
        board.writeFile(kFpgaImage, std::string(1000, 'x'));
        std::filesystem::create_directories(board.hostPath(kTool).parent_path());
        board.writeFile(kTool, "a tool");
        done(1);
        startFresh();
    }

    // Holds DONE at this level, whatever the FPGA does.
    void done(int level) { board.gpio().at(443).stickAt(level); }

    // The commands do nothing and succeed; `failing` exits with 3.
    void fakeCommands(const std::string& failing = "") {
        if (!failing.empty()) {
            board.faults().add({.call = Call::kSystem, .path = failing, .exitCode = 3});
        }
        board.faults().add({.call = Call::kSystem, .times = -1, .lostSilently = true});
    }
};

// The image's size.

TEST_F(FpgaFlash, SizeOfAFileIsItsBytes) {
    EXPECT_EQ(getFileSize(kFpgaImage), 1000U);
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(FpgaFlash, SizeOfAMissingFileIsMinus1AndADebugLine) {
    EXPECT_EQ(getFileSize("/vendor/none"), 0xFFFFFFFFU);
    EXPECT_EQ(getFileSize(nullptr), 0xFFFFFFFFU);
    EXPECT_THAT(messages(), ElementsAre("D getFileSize: Error opening file\n",
                                        "D getFileSize: Error opening file\n"));
}

TEST_F(FpgaFlash, SizeOfWhatCannotBeSoughtIsMinus1AndADebugLine) {
    int ends[2] = {};
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(getFileSize(("/proc/self/fd/" + std::to_string(ends[0])).c_str()), 0xFFFFFFFFU);
    EXPECT_THAT(messages(), ElementsAre("D getFileSize: Error seeking to end of file\n"));
    close(ends[0]);
    close(ends[1]);
}

TEST_F(FpgaFlash, SizeThatCannotBeToldIsMinus1AndADebugLine) {
    gTellFails = true;
    EXPECT_EQ(getFileSize(kFpgaImage), 0xFFFFFFFFU);
    gTellFails = false;
    EXPECT_THAT(messages(), ElementsAre("D getFileSize: Error telling file size\n"));
}

// DONE.

TEST_F(FpgaFlash, DoneThatIsHighAnswersAtOnce) {
    EXPECT_EQ(fpgaCheckDone(), 1);
    EXPECT_THAT(sleeps(), IsEmpty());
    EXPECT_THAT(messages(), ElementsAre("D fpgaCheckDone: fpga done gpio id = 443\n",
                                        "D fpgaCheckDone: FPGA_DONE is 1\n"));
}

TEST_F(FpgaFlash, DoneLineBelow1IsNoLineAndCountsAsLow) {
    for (const int gpio : {0, -1}) {
        config_info->fpga_done_gpio = gpio;
        EXPECT_EQ(fpgaCheckDone(), 0);
    }
    EXPECT_THAT(sleeps(), IsEmpty());
    EXPECT_THAT(messages(), ElementsAre("D fpgaCheckDone: invalid fpga_done_gpio_id = 0\n",
                                        "D fpgaCheckDone: invalid fpga_done_gpio_id = -1\n"));
}

TEST_F(FpgaFlash, SizeThatIsUnknownAndMissingDoneLineAreSilentBelowLevelD) {
    setLogLevel("I");
    int ends[2] = {};
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(getFileSize(("/proc/self/fd/" + std::to_string(ends[0])).c_str()), 0xFFFFFFFFU);
    close(ends[0]);
    close(ends[1]);
    gTellFails = true;
    EXPECT_EQ(getFileSize(kFpgaImage), 0xFFFFFFFFU);
    gTellFails = false;
    config_info->fpga_done_gpio = 0;
    EXPECT_EQ(fpgaCheckDone(), 0);
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(FpgaFlash, DoneBeforeTheProductIsParsedHasNoLine) {
    FreshLibrary::reset();
    EXPECT_EQ(fpgaCheckDone(), 0);
    EXPECT_THAT(messages(), ElementsAre("D fpgaCheckDone: invalid fpga_done_gpio_id = 0\n"));
}

TEST_F(FpgaFlash, DoneThatNeverRisesIsRead20TimesWith20PausesOfHalfASecond) {
    done(0);
    const auto start = board.now();
    EXPECT_EQ(fpgaCheckDone(), 0);
    EXPECT_EQ(board.now() - start, std::chrono::seconds(10));
    EXPECT_EQ(sleeps(), std::vector<std::string>(20, "0.500000 s"));
    std::vector<std::string> expected = {"D fpgaCheckDone: fpga done gpio id = 443\n"};
    expected.insert(expected.end(), 20,
                    "D fpgaCheckDone: FPGA_DONE is not 1, waiting 0.5 second...\n");
    expected.push_back("D fpgaCheckDone: Maximum wait time 10 second exceeded, exiting...\n");
    EXPECT_EQ(messages(), expected);
}

TEST_F(FpgaFlash, DoneThatRisesLaterEndsTheWaitThere) {
    board.faults().add({.call = Call::kGpioGet, .path = kDoneLine, .error = EIO, .times = 3});
    EXPECT_EQ(fpgaCheckDone(), 1);
    EXPECT_EQ(sleeps().size(), 3U);
    EXPECT_EQ(messages().back(), "D fpgaCheckDone: FPGA_DONE is 1\n");
}

TEST_F(FpgaFlash, DoneThatCannotBeReadIsTheErrorAsItIs) {
    board.faults().add({.call = Call::kGpioGet, .path = kDoneLine, .error = EIO, .times = -1});
    EXPECT_EQ(fpgaCheckDone(), -EIO);
    EXPECT_EQ(sleeps().size(), 20U);
}

TEST_F(FpgaFlash, DoneSaysNothingAtTheDefaultLevel) {
    startFresh("I");
    fpgaCheckDone();
    EXPECT_THAT(messages(), IsEmpty());
}

// fpgaFwUpdate.

TEST_F(FpgaFlash, UpdateErasesWritesRestartsAndWaitsForDone) {
    fakeCommands();
    EXPECT_EQ(fpgaFwUpdate(), 0);
    EXPECT_THAT(timeline(),
                ElementsAre("gpio 441 = 0", "gpio 442 = 0", std::string("$ ") + kEraseCommand,
                            std::string("$ ") + kWrite, "gpio 441 = 1", "gpio 442 = 1"));
    EXPECT_THAT(messages(), ElementsAre("D fpgaFwUpdate: is called\n",
                                        "D fpgaFwUpdate: /vendor/firmware/fpga_Heron.bin exist\n",
                                        "D fpgaFwUpdate: fpga_fw_size = 1000\n",
                                        "D fpgaFwUpdate: control gpio 441 pull low\n",
                                        "D fpgaFwUpdate: config gpio 442 pull low\n",
                                        "D fpgaFwUpdate: mtd_debug erase success\n",
                                        std::string("D fpgaFwUpdate: cmd = ") + kWrite + "\n",
                                        "D fpgaFwUpdate: mtd_debug write success\n",
                                        "D fpgaFwUpdate: control gpio 441 pull high\n",
                                        "D fpgaFwUpdate: config gpio 442 pull low\n",
                                        "D fpgaFwUpdate: config gpio 442 pull high\n",
                                        "D fpgaCheckDone: fpga done gpio id = 443\n",
                                        "D fpgaCheckDone: FPGA_DONE is 1\n",
                                        "D fpgaFwUpdate: fpga done pin check success\n"));
}

TEST_F(FpgaFlash, UpdateThatSucceedsSaysNothingBelowDebug) {
    startFresh("I");
    fakeCommands();
    EXPECT_EQ(fpgaFwUpdate(), 0);
    EXPECT_THAT(messages(), IsEmpty());
}

TEST_F(FpgaFlash, UpdateWithoutAnImageTouchesNothing) {
    std::filesystem::remove(board.hostPath(kFpgaImage));
    const std::string printed = standardErrorOf([] { EXPECT_EQ(fpgaFwUpdate(), -1); });
    EXPECT_EQ(printed, "access: No such file or directory\n");
    EXPECT_THAT(timeline(), IsEmpty());
    EXPECT_THAT(messages(),
                ElementsAre("D fpgaFwUpdate: is called\n",
                            "E fpgaFwUpdate: /vendor/firmware/fpga_Heron.bin not exist\n"));
}

TEST_F(FpgaFlash, UpdateWithAnEmptyImageTouchesNothing) {
    board.writeFile(kFpgaImage, "");
    EXPECT_EQ(fpgaFwUpdate(), -1);
    EXPECT_THAT(timeline(), IsEmpty());
    EXPECT_EQ(messages().back(), "E fpgaFwUpdate: invalid heron_fpga_fw size = 0\n");
}

TEST_F(FpgaFlash, UpdateWhoseImageCannotBeOpenedGoesOnToTheToolWith4294967295) {
    board.faults().add({.call = Call::kFopen, .path = kFpgaImage, .error = EACCES});
    const std::string write =
        "mtd_debug write /dev/mtd0 0 4294967295 /vendor/firmware/fpga_Heron.bin";
    fakeCommands(write);
    EXPECT_EQ(fpgaFwUpdate(), -1);
    EXPECT_THAT(commands(), ElementsAre(kEraseCommand, write));
    EXPECT_THAT(messages(), testing::IsSupersetOf({"D getFileSize: Error opening file\n",
                                                   "D fpgaFwUpdate: fpga_fw_size = 4294967295\n"}));
    EXPECT_EQ(messages().back(), "E fpgaFwUpdate: mtd_debug write exit status: 3\n");
}

TEST_F(FpgaFlash, UpdateNeedsBothLines) {
    config_info->fpga_control_gpio = 0;
    EXPECT_EQ(fpgaFwUpdate(), -1);
    EXPECT_EQ(messages().back(),
              "E fpgaFwUpdate: invalid fpga_control_gpio_id = 0 or fpga_config_gpio_id = 442\n");
    config_info->fpga_control_gpio = 441;
    config_info->fpga_config_gpio = -5;
    EXPECT_EQ(fpgaFwUpdate(), -1);
    EXPECT_EQ(messages().back(),
              "E fpgaFwUpdate: invalid fpga_control_gpio_id = 441 or fpga_config_gpio_id = -5\n");
    EXPECT_THAT(timeline(), IsEmpty());
}

TEST_F(FpgaFlash, LinesCountFrom1On) {
    for (const auto& [control, config] : {std::pair{1, 442}, {441, 1}}) {
        config_info->fpga_control_gpio = control;
        config_info->fpga_config_gpio = config;
        startFresh();
        EXPECT_EQ(fpgaFwUpdate(), -1) << "the board has no such line";
        EXPECT_THAT(messages().back(), testing::EndsWith(" gpio 1 set failed\n"));
    }
    config_info->fpga_control_gpio = 1;
    EXPECT_EQ(fpgaFlashFormat(), -1);
    EXPECT_EQ(messages().back(), "E fpgaFlashFormat: gpio 1 set failed\n");
    config_info->fpga_done_gpio = 1;
    EXPECT_EQ(fpgaCheckDone(), -ENODEV);
}

TEST_F(FpgaFlash, UpdateDoesNotAskForTheTool) {
    std::filesystem::remove(board.hostPath(kTool));
    fakeCommands();
    EXPECT_EQ(fpgaFwUpdate(), 0);
}

TEST_F(FpgaFlash, UpdateWhoseEraseExitsWith3LogsItAndLeavesBothLinesLow) {
    fakeCommands(kEraseCommand);
    EXPECT_EQ(fpgaFwUpdate(), -1);
    EXPECT_THAT(timeline(),
                ElementsAre("gpio 441 = 0", "gpio 442 = 0", std::string("$ ") + kEraseCommand));
    EXPECT_EQ(messages().back(), "E fpgaFwUpdate: mtd_debug erase exit status: 3\n");
}

TEST_F(FpgaFlash, UpdateWhoseWriteExitsWith3LogsItAndLeavesBothLinesLow) {
    fakeCommands(kWrite);
    EXPECT_EQ(fpgaFwUpdate(), -1);
    EXPECT_THAT(timeline(),
                ElementsAre("gpio 441 = 0", "gpio 442 = 0", std::string("$ ") + kEraseCommand,
                            std::string("$ ") + kWrite));
    EXPECT_EQ(messages().back(), "E fpgaFwUpdate: mtd_debug write exit status: 3\n");
}

TEST_F(FpgaFlash, UpdateWhoseShellCannotBeStartedLogsMinus1) {
    board.faults().add({.call = Call::kSystem, .path = kEraseCommand, .error = EAGAIN});
    EXPECT_EQ(fpgaFwUpdate(), -1);
    EXPECT_EQ(messages().back(), "E fpgaFwUpdate: mtd_debug erase exit status: -1\n");
}

TEST_F(FpgaFlash, UpdateWhoseToolDiesOfASignalFailsWithTheWaitStatusShiftedAsItStands) {
    board.faults().add({.call = Call::kSystem, .path = kEraseCommand, .signal = 9});
    EXPECT_EQ(fpgaFwUpdate(), -1);
    EXPECT_EQ(messages().back(), "E fpgaFwUpdate: mtd_debug erase exit status: 0\n");
}

TEST_F(FpgaFlash, UpdateWhoseDoneStaysLowFails) {
    fakeCommands();
    done(0);
    EXPECT_EQ(fpgaFwUpdate(), -1);
    EXPECT_EQ(messages().back(), "E fpgaFwUpdate: fpga done pin check failed\n");
    EXPECT_EQ(sleeps().size(), 20U);
}

TEST_F(FpgaFlash, UpdateWithoutADoneLineFailsAtTheEnd) {
    config_info->fpga_done_gpio = 0;
    fakeCommands();
    EXPECT_EQ(fpgaFwUpdate(), -1);
    EXPECT_THAT(sleeps(), IsEmpty());
    EXPECT_EQ(messages().back(), "E fpgaFwUpdate: fpga done pin check failed\n");
}

TEST_F(FpgaFlash, UpdateTakesADoneLineThatCannotBeReadForDone) {
    board.faults().add({.call = Call::kGpioGet, .path = kDoneLine, .error = EIO, .times = -1});
    fakeCommands();
    EXPECT_EQ(fpgaFwUpdate(), 0);
    EXPECT_EQ(messages().back(), "D fpgaFwUpdate: fpga done pin check success\n");
}

// A line that can be driven `after` times and then no more; the log's message then, and the number
// of commands that were run.
struct StuckLine {
    const char* name;
    const char* line;
    int after;
    const char* message;
    size_t commands;
};
void PrintTo(const StuckLine& row, std::ostream* out) { *out << row.name; }
std::string lineName(const testing::TestParamInfo<StuckLine>& info) { return info.param.name; }

class FpgaUpdateLine : public FpgaFlash, public testing::WithParamInterface<StuckLine> {};

TEST_P(FpgaUpdateLine, ThatCannotBeDrivenEndsTheUpdateThere) {
    const StuckLine& row = GetParam();
    fakeCommands();
    board.faults().add(
        {.call = Call::kGpioSet, .path = row.line, .error = EIO, .after = row.after});
    EXPECT_EQ(fpgaFwUpdate(), -1);
    EXPECT_EQ(commands().size(), row.commands);
    EXPECT_EQ(messages().back(), row.message);
}

INSTANTIATE_TEST_SUITE_P(
    Each, FpgaUpdateLine,
    testing::Values(
        StuckLine{"ControlLow", kControlLine, 0, "E fpgaFwUpdate: control gpio 441 set failed\n",
                  0},
        StuckLine{"ConfigLow", kConfigLine, 0, "E fpgaFwUpdate: config gpio 442 set failed\n", 0},
        StuckLine{"ControlHigh", kControlLine, 1, "E fpgaFwUpdate: control gpio 441 set failed\n",
                  2},
        StuckLine{"ConfigLowAgain", kConfigLine, 1, "E fpgaFwUpdate: config gpio 442 set failed\n",
                  2},
        StuckLine{"ConfigHigh", kConfigLine, 2, "E fpgaFwUpdate: config gpio 442 set failed\n", 2}),
    lineName);

// fpgaFlashFormat.

TEST_F(FpgaFlash, FormatErasesBetweenTheEdgesOfTheControlLine) {
    fakeCommands();
    EXPECT_EQ(fpgaFlashFormat(), 0);
    EXPECT_THAT(timeline(),
                ElementsAre("gpio 441 = 0", std::string("$ ") + kEraseCommand, "gpio 441 = 1"));
    EXPECT_THAT(messages(), ElementsAre("D fpgaFlashFormat: is called\n",
                                        "D fpgaFlashFormat: gpio 441 pull low\n",
                                        "D fpgaFlashFormat: mtd_debug tool exist\n",
                                        "D fpgaFlashFormat: mtd_debug erase success\n",
                                        "D fpgaFlashFormat: gpio 441 pull high\n"));
}

TEST_F(FpgaFlash, FormatNeedsTheControlLineAlone) {
    config_info->fpga_config_gpio = 0;
    fakeCommands();
    EXPECT_EQ(fpgaFlashFormat(), 0);
    config_info->fpga_control_gpio = 0;
    startFresh();
    EXPECT_EQ(fpgaFlashFormat(), -1);
    EXPECT_THAT(timeline(), IsEmpty());
    EXPECT_THAT(messages(), ElementsAre("D fpgaFlashFormat: is called\n",
                                        "E fpgaFlashFormat: invalid fpga_control_gpio_id = 0\n"));
}

TEST_F(FpgaFlash, FormatWithoutTheToolLeavesTheControlLineLow) {
    std::filesystem::remove(board.hostPath(kTool));
    const std::string printed = standardErrorOf([] { EXPECT_EQ(fpgaFlashFormat(), -1); });
    EXPECT_EQ(printed, "access: No such file or directory\n");
    EXPECT_THAT(timeline(), ElementsAre("gpio 441 = 0"));
    EXPECT_EQ(messages().back(), "E fpgaFlashFormat: mtd_debug tool not exist\n");
}

TEST_F(FpgaFlash, FormatWhoseEraseExitsWith3LeavesTheControlLineLow) {
    fakeCommands(kEraseCommand);
    EXPECT_EQ(fpgaFlashFormat(), -1);
    EXPECT_THAT(timeline(), ElementsAre("gpio 441 = 0", std::string("$ ") + kEraseCommand));
    EXPECT_EQ(messages().back(), "E fpgaFlashFormat: mtd_debug erase exit status: 3\n");
}

TEST_F(FpgaFlash, FormatWhoseControlLineCannotBeDrivenFailsAtEitherEdge) {
    fakeCommands();
    board.faults().add({.call = Call::kGpioSet, .path = kControlLine, .error = EIO});
    EXPECT_EQ(fpgaFlashFormat(), -1);
    EXPECT_THAT(commands(), IsEmpty());
    EXPECT_EQ(messages().back(), "E fpgaFlashFormat: gpio 441 set failed\n");
    board.faults().add({.call = Call::kGpioSet, .path = kControlLine, .error = EIO, .after = 1});
    EXPECT_EQ(fpgaFlashFormat(), -1);
    EXPECT_THAT(commands(), ElementsAre(kEraseCommand));
    EXPECT_EQ(messages().back(), "E fpgaFlashFormat: gpio 441 set failed\n");
}

// fpgaFlashWrite.

TEST_F(FpgaFlash, WriteWritesWithoutErasingAndRestartsWithoutAskingForDone) {
    fakeCommands();
    EXPECT_EQ(fpgaFlashWrite(), 0);
    EXPECT_THAT(timeline(), ElementsAre("gpio 441 = 0", "gpio 442 = 0", std::string("$ ") + kWrite,
                                        "gpio 441 = 1", "gpio 442 = 1"));
    EXPECT_THAT(
        messages(),
        ElementsAre(
            "D fpgaFlashWrite: is called\n",
            "D fpgaFlashWrite: /vendor/firmware/fpga_Heron.bin exist\n",
            "D fpgaFlashWrite: mtd_debug tool exist\n", "D fpgaFlashWrite: fpga_fw_size = 1000\n",
            "D fpgaFlashWrite: gpio 441 pull low\n", "D fpgaFlashWrite: gpio 442 pull low\n",
            std::string("D fpgaFlashWrite: cmd = ") + kWrite + "\n",
            "D fpgaFlashWrite: mtd_debug write success\n", "D fpgaFlashWrite: gpio 441 pull high\n",
            "D fpgaFlashWrite: gpio 442 pull low\n", "D fpgaFlashWrite: gpio 442 pull high\n"));
}

TEST_F(FpgaFlash, WriteWithoutAnImageOrToolTouchesNothing) {
    std::filesystem::remove(board.hostPath(kTool));
    EXPECT_EQ(standardErrorOf([] { EXPECT_EQ(fpgaFlashWrite(), -1); }),
              "access: No such file or directory\n");
    EXPECT_EQ(messages().back(), "E fpgaFlashWrite: mtd_debug tool not exist\n");
    std::filesystem::remove(board.hostPath(kFpgaImage));
    EXPECT_EQ(standardErrorOf([] { EXPECT_EQ(fpgaFlashWrite(), -1); }),
              "access: No such file or directory\n");
    EXPECT_EQ(messages().back(), "E fpgaFlashWrite: /vendor/firmware/fpga_Heron.bin not exist\n");
    EXPECT_THAT(timeline(), IsEmpty());
}

TEST_F(FpgaFlash, WriteOfAnEmptyImageTouchesNothing) {
    board.writeFile(kFpgaImage, "");
    EXPECT_EQ(fpgaFlashWrite(), -1);
    EXPECT_THAT(timeline(), IsEmpty());
    EXPECT_EQ(messages().back(), "E fpgaFlashWrite: invalid heron_fpga_fw size = 0\n");
}

TEST_F(FpgaFlash, WriteNeedsBothLines) {
    config_info->fpga_config_gpio = 0;
    EXPECT_EQ(fpgaFlashWrite(), -1);
    EXPECT_EQ(messages().back(),
              "E fpgaFlashWrite: invalid fpga_control_gpio_id = 441 or fpga_config_gpio_id = 0\n");
    config_info->fpga_control_gpio = -1;
    config_info->fpga_config_gpio = 442;
    EXPECT_EQ(fpgaFlashWrite(), -1);
    EXPECT_EQ(messages().back(),
              "E fpgaFlashWrite: invalid fpga_control_gpio_id = -1 or fpga_config_gpio_id = 442\n");
    EXPECT_THAT(timeline(), IsEmpty());
}

TEST_F(FpgaFlash, WriteThatExitsWith3LeavesBothLinesLow) {
    fakeCommands(kWrite);
    EXPECT_EQ(fpgaFlashWrite(), -1);
    EXPECT_THAT(timeline(),
                ElementsAre("gpio 441 = 0", "gpio 442 = 0", std::string("$ ") + kWrite));
    EXPECT_EQ(messages().back(), "E fpgaFlashWrite: mtd_debug write exit status: 3\n");
}

class FpgaWriteLine : public FpgaFlash, public testing::WithParamInterface<StuckLine> {};

TEST_P(FpgaWriteLine, ThatCannotBeDrivenEndsTheWriteThere) {
    const StuckLine& row = GetParam();
    fakeCommands();
    board.faults().add(
        {.call = Call::kGpioSet, .path = row.line, .error = EIO, .after = row.after});
    EXPECT_EQ(fpgaFlashWrite(), -1);
    EXPECT_EQ(commands().size(), row.commands);
    EXPECT_EQ(messages().back(), row.message);
}

INSTANTIATE_TEST_SUITE_P(
    Each, FpgaWriteLine,
    testing::Values(
        StuckLine{"ControlLow", kControlLine, 0, "E fpgaFlashWrite: gpio 441 set failed\n", 0},
        StuckLine{"ConfigLow", kConfigLine, 0, "E fpgaFlashWrite: gpio 442 set failed\n", 0},
        StuckLine{"ControlHigh", kControlLine, 1, "E fpgaFlashWrite: gpio 441 set failed\n", 1},
        StuckLine{"ConfigLowAgain", kConfigLine, 1, "E fpgaFlashWrite: gpio 442 set failed\n", 1},
        StuckLine{"ConfigHigh", kConfigLine, 2, "E fpgaFlashWrite: gpio 442 set failed\n", 1}),
    lineName);

TEST_F(FpgaFlash, WriteWaitsInSecondsForAsLongAsAnUpdateIsInProgress) {
    fakeCommands();
    config_info->fw_updating = 1;
    std::thread host([] {
        usleep(3600 * 1000000U + 500000U);
        __atomic_store_n(&config_info->fw_updating, 0, __ATOMIC_RELEASE);
    });
    EXPECT_EQ(fpgaFlashWrite(), 0);
    EXPECT_EQ(board.now(), std::chrono::seconds(3601));
    host.join();
    const auto seen = timeline();
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "sleep 1.000000 s"), 3601);
    EXPECT_EQ(seen.back(), "gpio 442 = 1");
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "gpio 442 = 0"), 1);
}

TEST_F(FpgaFlash, WriteDoesNotWaitForAFlagOtherThan1) {
    fakeCommands();
    for (const int flag : {2, -1}) {
        config_info->fw_updating = flag;
        EXPECT_EQ(fpgaFlashWrite(), 0);
    }
    EXPECT_THAT(sleeps(), IsEmpty());
}

TEST_F(FpgaFlash, WriteOfTheLongestPathThatTheRecordHoldsIsWhole) {
    const std::string path = "/vendor/firmware/" + std::string(110, 'n');
    memcpy(config_info->fpga_fw_path, path.c_str(), path.size() + 1);
    board.writeFile(path, "x");
    fakeCommands();
    EXPECT_EQ(fpgaFlashWrite(), 0);
    EXPECT_THAT(commands(), ElementsAre("mtd_debug write /dev/mtd0 0 1 " + path));
}

}  // namespace quil::tests
