// quilctl's board directories: made, shared, damaged, mended.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>
#include <random>

#include "board/board_check.h"
#include "board/core/directory_lock.h"
#include "board/fpga/serial_flash.h"
#include "testing/build.h"
#include "testing/files.h"
#include "testing/program_output.h"
#include "testing/short_files.h"
#include "tests/quilctl/test_run.h"

namespace quil::tests {
namespace {

namespace fs = std::filesystem;
using board::DirectoryLock;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

// What is in a directory, by name; folders have no content.
std::map<std::string, std::string> treeOf(const fs::path& root) {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        files[entry.path().lexically_relative(root)] =
            entry.is_regular_file() ? contentOf(entry.path()) : "";
    }
    return files;
}

class QuilctlBoard : public QuilctlRun {};

TEST_F(QuilctlBoard, IsMadeOnlyInAnEmptyOrANewDirectory) {
    fs::create_directories(directory / "empty");
    fs::create_directories(directory / "full");
    board::writeWholeFile(directory / "full/x", "precious");
    for (const char* name : {"empty", "new/in/new"}) {
        EXPECT_EQ(quilctl({"board", "new", path(name)}).code, tools::kOk);
        EXPECT_EQ(quilctl({"board", "check", path(name)}).out, path(name) + ": good\n");
        EXPECT_EQ(quilctl({"board", "new", path(name)}).code, tools::kNoBoard);
    }
    const Said said = quilctl({"board", "new", path("full")});
    EXPECT_EQ(said.code, tools::kNoBoard);
    EXPECT_EQ(said.err, "quilctl: " + path("full") + ": not empty, as a new board's is\n");
    EXPECT_THAT(treeOf(directory / "full"), testing::ElementsAre(Pair("x", "precious")));
    EXPECT_EQ(quilctl({"board", "new", ""}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"--board", "", "get", "1"}).code, tools::kUsage);
}

TEST_F(QuilctlBoard, WhoseMakingFailsLeavesNothing) {
    const ShortFiles full(4096);
    const Said said = quilctl({"board", "new", path("new/board")});
    EXPECT_EQ(said.code, tools::kNoBoard);
    EXPECT_THAT(said.err, HasSubstr(".bin: cannot be written: File too large\n"));
    fs::create_directory(directory / "empty");
    EXPECT_EQ(quilctl({"board", "new", path("empty")}).code, tools::kNoBoard);
    EXPECT_THAT(treeOf(directory), testing::ElementsAre(Pair("empty", "")));
}

TEST_F(QuilctlBoard, WhoseMakingWasInterruptedIsCalledHalfAndFinishedByARepair) {
    const std::string half = newBoard("Wren_t507");
    fs::remove_all(half + "/rootfs/vendor");
    fs::remove(half + "/mcu/flash");
    board::writeWholeFile(half + "/format", "quil board 1 unfinished Wren_t507\n");
    for (const auto& words : std::vector<tools::Words>{
             {"board", "show", half}, {"board", "new", half}, {"--board", half, "get", "1"}}) {
        const Said said = quilctl(words);
        EXPECT_EQ(said.code, tools::kNoBoard);
        EXPECT_THAT(said.err, HasSubstr(half + ": half a board, its making was interrupted"));
    }
    EXPECT_EQ(quilctl({"board", "check", half}).code, tools::kBadData);
    EXPECT_EQ(quilctl({"board", "repair", half}).code, tools::kOk);
    const std::string whole = (directory / "whole").string();
    ASSERT_EQ(quilctl({"board", "new", whole, "--product", "Wren_t507"}).code, tools::kOk);
    EXPECT_EQ(treeOf(half), treeOf(whole));
}

TEST_F(QuilctlBoard, OfANewerFormatIsRefusedAndLeftAlone) {
    const std::string board = newBoard();
    board::writeWholeFile(board + "/format", "quil board 2\n");
    const std::string expected =
        "quilctl: " + board + ": a board of format 2; this program knows format 1\n";
    EXPECT_EQ(quilctl({"--board", board, "get", "1"}).err, expected);
    EXPECT_EQ(quilctl({"board", "show", board}).err, expected);
    EXPECT_EQ(quilctl({"board", "repair", board}).code, tools::kBadData);
    EXPECT_EQ(contentOf(board + "/format"), "quil board 2\n");
}

TEST_F(QuilctlBoard, WithoutAFormatIsOneOfTheFirst) {
    const std::string board = newBoard();
    fs::remove(board + "/format");
    EXPECT_EQ(quilctl({"--board", board, "get", "1"}).code, tools::kOk);
    EXPECT_THAT(quilctl({"board", "check", board}).out,
                HasSubstr("/format: warning: missing; taken as format 1\n"));
    EXPECT_EQ(quilctl({"board", "repair", board}).code, tools::kOk);
    EXPECT_EQ(contentOf(board + "/format"), "quil board 1\n");
}

TEST_F(QuilctlBoard, InUseIsWaitedForAsLongAsItIsSaidAndThenItsOwnerIsNamed) {
    const std::string board = newBoard();
    const DirectoryLock owner(board, DirectoryLock::Use::kOwner, {});
    for (const auto& words : std::vector<tools::Words>{{"get", "1"},
                                                       {"config", "show"},
                                                       {"board", "show"},
                                                       {"board", "check"},
                                                       {"board", "repair"}}) {
        const Said said = quilctl(tools::Words{"--wait", "0", "--board", board} + words);
        EXPECT_EQ(said.code, tools::kNoBoard);
        EXPECT_THAT(said.err, AllOf(StartsWith("quilctl: " + board + " is in use by pid " +
                                               std::to_string(getpid()) + " since "),
                                    HasSubstr("; waited 0 s\n")));
    }
}

TEST_F(QuilctlBoard, IsSharedByThoseWhoOnlyReadItAndNotChangedByThem) {
    const std::string board = newBoard();
    const DirectoryLock reader(board, DirectoryLock::Use::kReader, {});
    const auto before = treeOf(board);
    for (const auto& words : std::vector<tools::Words>{{"config", "show"},
                                                       {"--log-level", "D", "config", "show"},
                                                       {"board", "show"},
                                                       {"board", "check"}}) {
        const Said said = quilctl(tools::Words{"--wait", "0", "--board", board} + words);
        EXPECT_EQ(said.code, tools::kOk) << said.err;
    }
    EXPECT_EQ(treeOf(board), before);
    EXPECT_THAT(quilctl({"--wait", "0", "--board", board, "get", "1"}).err,
                HasSubstr(" is being read by pid " + std::to_string(getpid())));
}

TEST_F(QuilctlBoard, KeepsEachOfTwentyValuesThatAreSetAtOnce) {
    const std::string board = newBoard();
    const std::string set = std::string(QUIL_EMULATOR) +
                            " '" QUIL_BIN_DIR "/quilctl' --quiet --wait 300 " + "--board '" +
                            board + "' set 0x$i ";
    const CommandRun run = runCommand(
        "for i in 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24 25 26 "
        "27 28 29; do " +
        set + "$i & done 2>&1; wait");
    std::string answers, values;
    for (int i = 0; i < 20; ++i) {
        const std::string number = std::to_string(10 + i);
        answers += "00\n";
        values.append("0x000000").append(number).append(" = ").append(number).append("\n");
    }
    EXPECT_EQ(run.output, answers);
    EXPECT_EQ(contentOf(board + "/mcu/values"), values);
}

struct Damage {
    const char* file;
    std::string content;
    int line;
    const char* problem;
    std::string mended;
};

std::vector<Damage> damages() {
    return {
        {"mcu/values", "bb\n0x00000102 = 0A\n", 1, "no \"name = value\": 'bb'",
         "0x00000102 = 0A\n"},
        {"mcu/values", "0x102 = 0A G1\n", 1, "'G1' is no byte", ""},
        {"mcu/values", "0x1 = 1\n0x1 = 2\n", 1, "a later line says what 0x1 is", "0x1 = 2\n"},
        {"mcu/option_bytes", "readout_protected = 1\nwrite_protected = 999\n", 2,
         "the MCU has no page '999'", "readout_protected = 1\n"},
        {"properties", "a=1\nb\n", 2, "no \"name = value\": 'b'", "a=1\n"},
        {"properties", "a=" + std::string(92, 'x'), 1, "a value has at most 91 characters", ""},
        {"parts", "rtc = borken\n", 1, "a part is one of healthy, faulty, absent", ""},
        {"parts", "sdcard = full\nrtk = faulty\n", 2,
         "no such part; there are rtc, es8316, wifi-ap, wifi-sta, idt6965, es8316.0 .., sdcard",
         "sdcard = full\n"},
        {"parts", std::string("\0\1\2", 3), 1, "no \"name = value\": binary bytes", ""},
        {"product_information", "Heron\n", 1, "no module id", "101\n"},
        {"format", "what", 0, "says no format", "quil board 1\n"},
        {"mcu/flash", std::string(0x80000 + 1, 'x'), 0,
         "524289 bytes; the flash of a gd32f303 has 524288", std::string(0x80000, 'x')},
        {"mtd0", std::string(board::SerialFlash::kSize + 7, 'x'), 0,
         "16777223 bytes; the flash of the part has 16777216",
         std::string(board::SerialFlash::kSize, 'x')},
    };
}

TEST_F(QuilctlBoard, DamageIsNamedNotPoweredAndMendedWithTheFormerFileKeptAside) {
    for (const Damage& damage : damages()) {
        SCOPED_TRACE(std::string(damage.file) + ": " + damage.problem);
        fs::remove_all(directory / "Heron");
        const std::string board = newBoard(), file = board + "/" + damage.file;
        board::writeWholeFile(file, damage.content);
        const std::string place =
            file + (damage.line > 0 ? ":" + std::to_string(damage.line) : "") + ": ";
        const Said check = quilctl({"board", "check", board});
        EXPECT_EQ(check.code, tools::kBadData);
        EXPECT_THAT(check.out, StartsWith(place + damage.problem + "\n  repair: "));
        const Said powered = quilctl({"--board", board, "get", "1"});
        EXPECT_EQ(powered.code, tools::kNoBoard);
        EXPECT_THAT(powered.err, HasSubstr("(quilctl board repair"));
        EXPECT_TRUE(contentOf(file) == damage.content);
        EXPECT_EQ(quilctl({"board", "repair", board}).code, tools::kOk);
        EXPECT_TRUE(contentOf(file) == damage.mended);  // too long to be printed
        EXPECT_TRUE(contentOf(file + ".damaged") == damage.content);
        EXPECT_EQ(quilctl({"board", "check", board}).out, board + ": good\n");
    }
}

TEST_F(QuilctlBoard, ProductFileIsMendedButAnyIsPowered) {
    const std::string board = newBoard("Kestrel"), file = board + "/rootfs/vendor/etc/product.ini";
    const std::string good = contentOf(file);
    board::writeWholeFile(file, "what is this\n" + good);
    EXPECT_THAT(quilctl({"board", "check", board}).out,
                HasSubstr(file + ":1: neither a [section] nor key = value: 'what is this'\n"));
    EXPECT_EQ(quilctl({"--board", board, "get", "1"}).code, tools::kOk);
    EXPECT_EQ(quilctl({"board", "repair", board}).code, tools::kOk);
    EXPECT_EQ(contentOf(file), good);
    fs::remove(file);
    EXPECT_EQ(quilctl({"board", "check", board}).code, tools::kBadData);
    EXPECT_EQ(quilctl({"board", "repair", board}).code, tools::kOk);
    EXPECT_EQ(contentOf(file), good) << "the module id tells the product";
}

TEST_F(QuilctlBoard, LeftoverOfAKilledProgramIsRemovedAndAStrangerOnlyTold) {
    const std::string board = newBoard();
    board::writeWholeFile(board + "/mcu/flash" + board::kFreshSuffix, "half");
    board::writeWholeFile(board + "/notes.txt", "mine");
    const Said check = quilctl({"board", "check", board});
    EXPECT_EQ(check.code, tools::kOk);
    EXPECT_THAT(check.out, AllOf(HasSubstr("/notes.txt: warning: nothing of the board's"),
                                 HasSubstr("left by a program that was killed while it wrote")));
    EXPECT_EQ(quilctl({"board", "repair", board}).code, tools::kOk);
    EXPECT_FALSE(fs::exists(board + "/mcu/flash" + board::kFreshSuffix));
    EXPECT_EQ(contentOf(board + "/notes.txt"), "mine");
}

TEST_F(QuilctlBoard, FindingsAreTheSameInJson) {
    const std::string board = newBoard();
    board::writeWholeFile(board + "/parts", "rtc = borken\n");
    const auto finding = resultOf(quilctl({"--json", "board", "check", board}))["problems"][0];
    EXPECT_EQ(finding["file"], "parts");
    EXPECT_EQ(finding["line"], 1);
    EXPECT_EQ(finding["severity"], "blocking");
    const auto repaired = resultOf(quilctl({"--json", "board", "repair", board}));
    EXPECT_EQ(repaired["mended"][0], finding);
    EXPECT_THAT(repaired["problems"], IsEmpty());
}

// Puts something else in the place of one file or folder of a board.
void wreck(const fs::path& place, std::mt19937& random) {
    std::error_code ignored;
    fs::remove_all(place, ignored);
    std::string garbage(random() % 5000, '\0');
    for (char& c : garbage) c = static_cast<char>(random());
    fs::create_directories(place.parent_path(), ignored);
    switch (random() % 5) {
        case 0:
            return;
        case 1:
            return void(fs::create_directory(place, ignored));
        case 2:
            return fs::create_symlink("nowhere", place, ignored);
        case 3:
            return void(mkfifo(place.c_str(), 0600));
        default:
            std::ofstream(place, std::ios::binary) << garbage;
    }
}

TEST_F(QuilctlBoard, OfGarbageIsMendedOrRefusedWithAReason) {
    std::mt19937 random(1);
    std::vector<std::string> places = board::factoryFolders();
    for (const auto& file : board::factoryFiles(board::Product::kHeron))
        places.push_back(file.name);
    for (const char* name : {"lock", "format", "parts", "mcu/option_bytes"}) places.push_back(name);
    for (int round = 0; round < 12; ++round) {
        SCOPED_TRACE(round);
        fs::remove_all(directory / "Heron");
        const std::string board = newBoard();
        for (int i = 0; i < 1 + round % 4; ++i)
            wreck(fs::path(board) / places[random() % places.size()], random);
        for (const auto& words : std::vector<tools::Words>{
                 {"board", "check"}, {"board", "show"}, {"config", "show"}, {"get", "1"}}) {
            const Said said = quilctl(tools::Words{"--board", board} + words);
            EXPECT_LT(said.code, tools::kNotWritten) << said.err;
            EXPECT_EQ(said.err.empty(), said.code == tools::kOk) << said.err;
        }
        const Said repair = quilctl({"board", "repair", board, "--product", "Heron"});
        EXPECT_EQ(repair.code, tools::kOk) << repair.err << repair.out;
        EXPECT_THAT(quilctl({"board", "check", board}).out, HasSubstr(board + ": good\n"));
    }
}

}  // namespace
}  // namespace quil::tests
