// quilctl mcu.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <thread>

#include "board/board_directory.h"
#include "board/core/directory_lock.h"
#include "board/core/whole_file.h"
#include "board/mcu/mcu_image.h"
#include "tests/quilctl/test_run.h"

namespace quil::tests {
namespace {

namespace fs = std::filesystem;
using board::makeMcuImage;
using board::McuKind;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

class QuilctlMcu : public QuilctlRun {};

TEST_F(QuilctlMcu, VersionTellsWhatRunsWhatIsShippedAndWhatWasRecorded) {
    const Said said = quilctl({"mcu", "version"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_EQ(said.out,
              "running   V1.0.0\n"
              "shipped   V1.0.0  /vendor/firmware/mcu_Heron.bin\n"
              "recorded  never programmed\n");
    const auto json = resultOf(quilctl({"mcu", "version", "--json"}));
    EXPECT_EQ(json["running"], "V1.0.0");
    EXPECT_EQ(json["recorded"], "");
}

TEST_F(QuilctlMcu, McuThatDoesNotAnswerIsAFailure) {
    const std::string board = newBoard();
    board::writeWholeFile(board + "/mcu/flash", "");
    const Said said = quilctl({"--board", board, "mcu", "version"});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, StartsWith("running   no answer\n"));
}

TEST_F(QuilctlMcu, UpdateProgramsTheShippedVersionAndABoardKeepsIt) {
    const std::string board = newBoard();
    const Said said = quilctl({"--board", board, "mcu", "update", "--installed", "V0.9.0"});
    EXPECT_EQ(said.code, tools::kOk) << said.out;
    EXPECT_THAT(said.out, MatchesRegex("programmed: 8192 of 8192 bytes in [0-9.]+ s, 1 attempt\n"
                                       "V0.9.0 -> V1.0.0\n"));
    EXPECT_THAT(said.err, ContainsRegex("  synchronise: ACK\n"));
    EXPECT_THAT(said.err, ContainsRegex("  erase 4 pages: ACK\n"));
    EXPECT_THAT(said.err, ContainsRegex("  write 100%: 8192 of 8192 bytes, [0-9.]+ kB/s, 0 s l"));
    EXPECT_THAT(quilctl({"--board", board, "mcu", "version"}).out, EndsWith("recorded  V1.0.0\n"));
}

TEST_F(QuilctlMcu, UpdateOfAnMcuThatIsUpToDateHasNothingToDo) {
    const Said said = quilctl({"mcu", "update"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_EQ(said.out, "the MCU runs V1.0.0 as shipped: nothing to do\n");
    EXPECT_EQ(said.err, "E/quil_system_fw_update: mcuFwUpdate: do not need upgrade FW\n");
}

TEST_F(QuilctlMcu, UpdateOfEveryProductEndsWithItsShippedVersion) {
    for (const char* product : {"Heron", "Kestrel", "Wren_t507"}) {
        const Said said =
            quilctl({"--product", product, "mcu", "update", "--installed", "V0.9.0", "--json"});
        EXPECT_EQ(said.code, tools::kOk) << product << said.out << said.err;
        const auto json = resultOf(said);
        EXPECT_EQ(json["done"], true) << product;
        EXPECT_EQ(json["before"], "V0.9.0");
        EXPECT_EQ(json["attempts"], 1);
    }
}

TEST_F(QuilctlMcu, UpdateFromAnEmptyImageIsRefusedWhateverTheMcuIsSaidToHold) {
    const std::string board = newBoard();
    board::writeWholeFile(board + "/rootfs/vendor/firmware/mcu_Heron.bin", "");
    const Said said = quilctl({"--board", board, "mcu", "update", "--installed", "V0.9.0"});
    EXPECT_EQ(said.code, tools::kBadData);
    EXPECT_THAT(said.err, HasSubstr("the image is empty: there is nothing to program"));
}

TEST_F(QuilctlMcu, UpdateWithoutItsImageTellsWhatTheLibrarySays) {
    const std::string board = newBoard();
    fs::remove(board + "/rootfs/vendor/firmware/mcu_Heron.bin");
    board::writeWholeFile(board + "/mcu/flash", makeMcuImage(McuKind::kGd32F303, "V0.9.0", 8192));
    const Said said = quilctl({"--board", board, "mcu", "update"});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, HasSubstr("FAILED: 0 of 0 bytes in 0.500 s, 0 attempts\n"));
    EXPECT_THAT(said.out, EndsWith("V0.9.0 -> V0.9.0\n"));
}

// The board carries a part that nobody listens to: its port is there, and silent.
TEST_F(QuilctlMcu, UpdateInVainTellsTheAttemptsTheStepAndWhatTheMcuSaid) {
    const std::string board = newBoard("Wren_t507");
    const std::string ini = board + "/rootfs/vendor/etc/product.ini";
    std::string content = board::readWholeFile(ini).value_or("");
    const size_t at = content.find("n32g45x");
    ASSERT_NE(at, std::string::npos);
    content.replace(at, 7, "stm32-n32g45x");  // the one family's loader, the other's part
    board::writeWholeFile(ini, content);
    const Said said = quilctl({"--board", board, "mcu", "update", "--installed", "V0.9.0"});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, ContainsRegex("FAILED: 0 of 8000 bytes in [0-9.]+ s, 5 attempts\n"
                                        "step: synchronise\nthe MCU said: nothing\n"
                                        "the library said: mcuFwUpdate: doMcuUpdate failed\n"
                                        "cause: synchronise: nothing\n"
                                        "V0.9.0 -> V0.9.0\n"));
    EXPECT_THAT(said.err, HasSubstr("  attempt 5\n"));
    EXPECT_THAT(said.err, HasSubstr("quilctl: remedy: see that the MCU is in its boot loader"));
}

TEST_F(QuilctlMcu, ProgramPutsAFileIntoEachPart) {
    const std::pair<McuKind, size_t> parts[] = {{McuKind::kGd32F303, 4096},
                                                {McuKind::kGd32F470, 5000},
                                                {McuKind::kGd32E503, 5000},
                                                {McuKind::kStm32H750, 5000},
                                                {McuKind::kN32G45x, 1000}};
    for (const auto& [kind, size] : parts) {
        const char* chip = board::partOf(kind).name;
        const std::string image = imageFile(makeMcuImage(kind, "V2.0.0", size));
        const Said said = quilctl({"mcu", "program", "--chip", chip, image});
        EXPECT_EQ(said.code, tools::kOk) << chip << said.out << said.err;
        EXPECT_THAT(said.out, StartsWith("programmed: " + std::to_string(size) + " of "));
    }
}

TEST_F(QuilctlMcu, BlockThatTheSessionLostUnnoticedIsToldAndFails) {
    const Said said = quilctl(
        {"mcu", "program", "--chip", "gd32f303", "--as-is", imageFile(std::string(3000, 'x'))});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, HasSubstr("INCOMPLETE: 2048 of 3000 bytes"));
    EXPECT_THAT(said.out, HasSubstr("step: write 256 bytes at 0x08000800\n"
                                    "the MCU said: NACK (0x1F)\n"
                                    "cause: the session examines few of the MCU's answers; to "
                                    "'write 256 bytes at 0x08000800' it was NACK (0x1F)\n"));
    EXPECT_THAT(said.err, HasSubstr("quilctl: remedy: the flash holds a part of the image"));
    EXPECT_THAT(said.err, HasSubstr("board: gd32f303: programming at 0x08000800"));
}

TEST_F(QuilctlMcu, ImageOfWhole128BytesGoesOutToAnN32WithoutItsLastBlock) {
    const Said said = quilctl(
        {"mcu", "program", "--chip", "n32g45x", "--as-is", imageFile(std::string(1024, 'x'))});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, StartsWith("INCOMPLETE: 896 of 1024 bytes"));
}

TEST_F(QuilctlMcu, ImageThatDoesNotSuitTheFlowIsRefusedBeforeItDoesHarm) {
    const std::tuple<McuKind, size_t, const char*> images[] = {
        {McuKind::kN32G45x, 1024, "multiple of 128: the flow leaves out the last 128"},
        {McuKind::kN32G45x, 40000, "313 blocks of 128 bytes: the flow counts them in 8 bits"},
        {McuKind::kGd32F303, 3000, "952 bytes into a page: the flow does not erase that page"},
        {McuKind::kGd32F470, 1 << 19, "pages for the image: its list holds 126"},
        {McuKind::kGd32F303, 270000, "pages for the image: its list holds 126"}};
    for (const auto& [kind, size, reason] : images) {
        const std::string image = imageFile(makeMcuImage(kind, "V2.0.0", size));
        const Said said = quilctl({"mcu", "program", "--chip", board::partOf(kind).name, image});
        EXPECT_EQ(said.code, tools::kBadData);
        EXPECT_THAT(said.err, HasSubstr(reason));
        EXPECT_THAT(said.err, HasSubstr("remedy: quilctl mcu flash"));
    }
    const std::string random = imageFile(std::string(4096, 'x'));
    EXPECT_THAT(quilctl({"mcu", "program", "--chip", "gd32f303", random}).err,
                HasSubstr("the stack pointer 0x78787878 is no word of the RAM of gd32f303"));
}

TEST_F(QuilctlMcu, ProgramAndUpdateAreRefusedForAnotherPartAndAnUnsuitedImage) {
    const std::string board = newBoard();
    const std::string image = imageFile(makeMcuImage(McuKind::kGd32F470, "V2.0.0", 4096));
    const Said other = quilctl({"--board", board, "mcu", "program", "--chip", "gd32f470", image});
    EXPECT_EQ(other.code, tools::kRefused);
    EXPECT_THAT(other.err, HasSubstr("the board's MCU is a gd32f303, not a gd32f470 (--chip)"));
    board::writeWholeFile(board + "/rootfs/vendor/firmware/mcu_Heron.bin", std::string(4096, 'x'));
    EXPECT_EQ(quilctl({"--board", board, "mcu", "update"}).code, tools::kBadData);
}

TEST_F(QuilctlMcu, PortThatIsNeitherTheBoardsNorADeviceIsRefused) {
    const Said said = quilctl(
        {"mcu", "program", "--chip", "gd32f303", "--port", path("none"), imageFile("image")});
    EXPECT_EQ(said.code, tools::kNoBoard);
    EXPECT_THAT(said.err, HasSubstr("is neither the board's /dev/ttyS3 nor a device"));
}

TEST_F(QuilctlMcu, WhatTheCommandLineGetsWrongIsAUsageError) {
    EXPECT_EQ(quilctl({"mcu"}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"mcu", "program", "--chip", "avr", imageFile("x")}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"mcu", "program", "--chip", "gd32f303", path("none")}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"mcu", "program", "--chip", "gd32f303", "/dev/zero"}).err,
              "quilctl: FILE: /dev/zero: not a regular file (see quilctl mcu program --help)\n");
    EXPECT_EQ(quilctl({"mcu", "task", "fly"}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"mcu", "task", "0x100"}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"mcu", "update", "--installed", std::string(16, 'V')}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"mcu", "model", "--chip", "gd32f303"}).code, tools::kUsage);
}

TEST_F(QuilctlMcu, TaskSavesWhatReadMemoryHasRead) {
    const std::string board = newBoard();
    const Said said =
        quilctl({"--board", board, "mcu", "task", "read-memory", "--save", path("back.bin")});
    EXPECT_EQ(said.code, tools::kOk) << said.err;
    EXPECT_EQ(board::readWholeFile(path("back.bin")),
              makeMcuImage(McuKind::kGd32F303, "V1.0.0", 8192));
}

TEST_F(QuilctlMcu, ModelServesItsPartAtTheLinkUntilASignalComes) {
    Said said{};
    std::thread server([&] {
        said = quilctl({"mcu", "model", "--chip", "gd32f303", "--pty", path("port")});
    });
    while (!fs::is_symlink(directory / "port")) std::this_thread::yield();
    EXPECT_TRUE(fs::is_character_file(directory / "port"));
    tools::interrupt(SIGTERM);
    server.join();
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_THAT(said.err, HasSubstr("gd32f303 in its boot loader at /dev/pts/"));
    EXPECT_FALSE(fs::exists(directory / "port"));
}

TEST_F(QuilctlMcu, ModelOnABoardsFlashWaitsForTheBoardAndNamesItsOwner) {
    const std::string board = newBoard();
    const board::DirectoryLock owner(board, board::DirectoryLock::Use::kOwner, {});
    const Said said = quilctl({"--wait", "0", "mcu", "model", "--chip", "gd32f303", "--pty",
                               path("port"), "--flash", board + "/mcu/flash"});
    EXPECT_EQ(said.code, tools::kNoBoard);
    EXPECT_THAT(said.err, HasSubstr(" is in use by pid "));
    EXPECT_FALSE(fs::exists(fs::symlink_status(path("port"))));
}

TEST_F(QuilctlMcu, BoardWhoseFlashAModelServesIsInUse) {
    const std::string board = newBoard();
    Said said{};
    std::thread server([&] {
        said = quilctl({"mcu", "model", "--chip", "gd32f303", "--pty", path("port"), "--flash",
                        board + "/mcu/flash"});
    });
    while (!fs::is_symlink(directory / "port")) std::this_thread::yield();
    EXPECT_THROW(board::DirectoryLock(board, board::DirectoryLock::Use::kOwner, {}),
                 std::runtime_error);
    tools::interrupt(SIGTERM);
    server.join();
    EXPECT_EQ(said.code, tools::kOk) << said.err;
    EXPECT_NO_THROW(board::DirectoryLock(board, board::DirectoryLock::Use::kOwner, {}));
    EXPECT_EQ(quilctl({"board", "check", board}).code, tools::kOk);
}

}  // namespace
}  // namespace quil::tests
