// system() on the board: a shell with the programs that the devices install.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <fstream>

#include "board/board.h"
#include "board/core/whole_file.h"
#include "testing/captured_output.h"

namespace {

using namespace quil::board;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using Words = std::vector<std::string>;

std::string content(const Board& board, const char* path) {
    return readWholeFile(board.hostPath(path)).value_or("(no such file)");
}

class BoardShell : public testing::Test {
  protected:
    // Installs a program that records its arguments.
    void install(const std::string& name, const ProgramResult& result = {}) {
        board.shell().add(name, [this, result](const Words& argv) {
            calls.push_back(argv);
            return result;
        });
    }

    // Runs a line and returns its standard error; its status goes to `status`.
    std::string errorsOf(const char* line) {
        return quil::tests::standardErrorOf([&] { status = system(line); });
    }

    Board board;
    std::vector<Words> calls;
    int status = -1;
};

TEST_F(BoardShell, EchoIntoAFileWritesItsWordsAndALineEnd) {
    EXPECT_EQ(system("echo one  'two  three' \"fo\\\"ur\" > /vendor/etc/note"), 0);
    EXPECT_EQ(content(board, "/vendor/etc/note"), "one two  three fo\"ur\n");
    EXPECT_EQ(system("echo -n 5>>/vendor/etc/note"), 0);
    EXPECT_EQ(content(board, "/vendor/etc/note"), "one two  three fo\"ur\n5");
    EXPECT_EQ(system("> /vendor/etc/note"), 0);
    EXPECT_EQ(content(board, "/vendor/etc/note"), "");
}

TEST_F(BoardShell, EveryLineIsAnEvent) {
    system("true");
    system("echo 1 > /vendor/etc/note; false");
    const auto events = board.trace().events(EventKind::kShell);
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].text, "true");
    EXPECT_EQ(events[1].text, "echo 1 > /vendor/etc/note; false");
}

TEST_F(BoardShell, ProgramGetsItsWordsAndItsExitCodeComesBackShiftedByEight) {
    install("mtd_debug", {3});
    status = system("mtd_debug erase /dev/mtd0 0 0xD00000");
    EXPECT_EQ(status, 3 << 8);
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_THAT(calls, ElementsAre(Words{"mtd_debug", "erase", "/dev/mtd0", "0", "0xD00000"}));
}

TEST_F(BoardShell, UnknownProgramEndsWith127AndTheShellsWords) {
    EXPECT_EQ(errorsOf("frobnicate --all"), "sh: frobnicate: inaccessible or not found\n");
    EXPECT_EQ(status, 127 << 8);
}

TEST_F(BoardShell, OperatorsRunWhatTheStatusBeforeThemAllows) {
    install("a");
    install("b", {1});
    install("c");
    EXPECT_EQ(system("a && b && c"), 1 << 8);
    EXPECT_THAT(calls, ElementsAre(Words{"a"}, Words{"b"}));
    calls.clear();
    EXPECT_EQ(system("b || c; b;"), 1 << 8);
    EXPECT_THAT(calls, ElementsAre(Words{"b"}, Words{"c"}, Words{"b"}));
    calls.clear();
    EXPECT_EQ(system("a || c # b"), 0);
    EXPECT_THAT(calls, ElementsAre(Words{"a"}));
}

TEST_F(BoardShell, SleepTakesBoardTimeAlone) {
    EXPECT_EQ(system("sleep 1.5 && true"), 0);
    EXPECT_EQ(board.now(), milliseconds(1500));
}

TEST_F(BoardShell, OutputGoesToTheProgramsOwnUnlessItIsLedAway) {
    install("both", {0, "out\n", "err\n"});
    const auto output = quil::tests::standardOutputOf([&] {
        EXPECT_EQ(errorsOf("both"), "err\n");
        EXPECT_EQ(errorsOf("both 2>/dev/null"), "");
        EXPECT_EQ(errorsOf("both > /vendor/etc/o 2>&1"), "");
    });
    EXPECT_EQ(output, "out\nout\n");
    EXPECT_EQ(content(board, "/vendor/etc/o"), "out\nerr\n");
}

TEST_F(BoardShell, FileThatCannotBeCreatedKeepsTheProgramFromRunning) {
    install("a");
    EXPECT_EQ(errorsOf("a > /vendor/none/such"),
              "sh: can't create /vendor/none/such: No such file or directory\n");
    EXPECT_EQ(status, 1 << 8);
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(BoardShell, LineReachesNoFileOfTheWorkstation) {
    const TemporaryDirectory outside;
    const std::string there = (outside.path() / "a").string();
    writeWholeFile(there, "outside");
    EXPECT_EQ(errorsOf(("echo 1 > " + there).c_str()),
              "sh: can't create " + there + ": No such file or directory\n");
    const std::string up = "/opt/../../../../../../../../../.." + there;
    EXPECT_NE(system(("echo 1 >> " + up).c_str()), 0);
    EXPECT_NE(system(("cat " + there).c_str()), 0);
    EXPECT_NE(system(("mtd_debug read /dev/mtd0 0 16 " + there).c_str()), 0);
    EXPECT_NE(system(("mtd_debug write /dev/mtd0 0 4 " + up).c_str()), 0);
    EXPECT_EQ(readWholeFile(there), "outside");
    EXPECT_EQ(fopen(up.c_str(), "r"), nullptr);
    EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(BoardShell, FileIsReplacedAsAWholeSoThatItsReadersKeepTheFormerOne) {
    board.writeFile("/opt/a", "former");
    std::ifstream reader(board.hostPath("/opt/a"));
    EXPECT_EQ(system("mtd_debug read /dev/mtd0 0 16 /opt/a && echo -n more >> /opt/a"), 0);
    std::string text;
    reader >> text;
    EXPECT_EQ(text, "former");
    EXPECT_EQ(content(board, "/opt/a").size(), 20U);
}

TEST_F(BoardShell, CatShowsFilesAndSaysWhatIsMissing) {
    board.writeFile("/vendor/etc/a", "first\n");
    const auto output = quil::tests::standardOutputOf([&] {
        EXPECT_EQ(errorsOf("cat /vendor/etc/a /vendor/etc/b"),
                  "cat: /vendor/etc/b: No such file or directory\n");
    });
    EXPECT_EQ(output, "first\n");
    EXPECT_EQ(status, 1 << 8);
}

TEST_F(BoardShell, FaultsFailTheCallOrTheCommandOrLoseIt) {
    install("a");
    board.faults().add({.call = Call::kSystem, .path = "a 1", .error = ENOMEM});
    board.faults().add({.call = Call::kSystem, .path = "a 2", .exitCode = 5});
    board.faults().add({.call = Call::kSystem, .path = "a 3", .lostSilently = true});
    EXPECT_EQ(system("a 1"), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(system("a 2"), 5 << 8);
    board.faults().add({.call = Call::kSystem, .path = "a 4", .signal = 11});
    EXPECT_EQ(system("a 3"), 0);
    EXPECT_EQ(system("a 4"), 11);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_EQ(system("a 1"), 0);
    EXPECT_THAT(calls, ElementsAre(Words{"a", "1"}));
}

struct Unknown {
    const char* name;
    const char* line;
};
void PrintTo(const Unknown& unknown, std::ostream* out) { *out << unknown.name; }

class BoardShellRefuses : public BoardShell, public testing::WithParamInterface<Unknown> {};

TEST_P(BoardShellRefuses, WhatItDoesNotKnow) {
    install("a");
    EXPECT_THAT(errorsOf(GetParam().line), testing::StartsWith("sh: syntax error: "));
    EXPECT_EQ(status, 1 << 8);
    EXPECT_EQ(board.violations().size(), 1U);
    EXPECT_THAT(calls, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Lines, BoardShellRefuses,
                         testing::Values(Unknown{"pipe", "a | a"}, Unknown{"background", "a &"},
                                         Unknown{"variable", "a $HOME"}, Unknown{"glob", "a *"},
                                         Unknown{"openQuote", "a 'b"}, Unknown{"noTarget", "a >"},
                                         Unknown{"emptyList", "; a"}, Unknown{"endlessAnd", "a &&"},
                                         Unknown{"substitution", "a \"`b`\""}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
