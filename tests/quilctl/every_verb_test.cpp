// What holds for every command of the two programs. The commands come from the command tree, so
// that a new one has to pass, too.
#include <gmock/gmock.h>
#include <stdlib.h>

#include <filesystem>
#include <set>
#include <streambuf>

#include "testing/build.h"
#include "testing/program_output.h"
#include "testing/project_files.h"
#include "testing/verb_cases.h"
#include "tests/quilctl/test_run.h"

namespace quil::tests {
namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Key;
using testing::Not;
using testing::StartsWith;
using tools::Words;

std::string textOf(const Words& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

// The row of a command in the table of results, or of an event of the progress.
std::string documentedRowOf(const std::string& name) {
    std::istringstream document(projectText("docs/quilctl.md"));
    for (std::string line; std::getline(document, line);) {
        const std::string head = line.substr(0, line.find(" | "));
        if (head.find("`" + name + "`") != std::string::npos) return line;
    }
    return "";
}

// Takes nothing, as a full disk does.
class FullDisk : public std::streambuf {};

int codeOnFullDisk(const Words& words) {
    FullDisk full;
    std::istringstream in;
    std::ostream out(&full);
    std::ostringstream err;
    return exitCodeOf(tools::kBoardProgram, words, {in, out, err});
}

class QuilctlEveryVerb : public QuilctlRun {
  protected:
    QuilctlEveryVerb() { makeVerbFiles(directory); }

    // Each command with its words and the case for it.
    template <typename Check>
    void forEach(Check check) {
        const auto known = verbCases(directory);
        for (const Words& verb : tools::verbsOf(tools::kBoardProgram)) {
            SCOPED_TRACE(textOf(verb));
            std::filesystem::remove_all(directory / "new");
            const auto found = known.find(textOf(verb));
            if (found != known.end()) check(verb, found->second);
        }
    }
};

TEST_F(QuilctlEveryVerb, HasACaseHere) {
    for (const Words& verb : tools::verbsOf(tools::kBoardProgram)) {
        EXPECT_THAT(verbCases(directory), Contains(Key(textOf(verb))));
    }
}

TEST_F(QuilctlEveryVerb, PrintsOneDocumentOfTheSchemaWhenAskedForJson) {
    forEach([&](const Words& verb, const VerbCase& row) {
        const Said said = quilctl(Words{"--json"} + verb + row.arguments);
        EXPECT_EQ(said.code, row.code) << said.err;
        const auto json = nlohmann::json::parse(said.out);
        EXPECT_EQ(json["schema"], 1);
        EXPECT_EQ(json["command"], textOf(verb));
        EXPECT_EQ(json["exit_code"], said.code);
        EXPECT_EQ(json.contains("error"), said.code != tools::kOk);
        EXPECT_TRUE(said.code != tools::kOk || json["result"].is_object());
        for (const auto& [name, value] : json.items()) {
            EXPECT_THAT(name, AnyOf("schema", "command", "exit_code", "error", "result"));
        }
        if (!json.contains("result")) return;
        for (const auto& [name, value] : json["result"].items()) {
            EXPECT_THAT(documentedRowOf(textOf(verb)), HasSubstr("`" + name + "`"));
        }
    });
}

TEST_F(QuilctlEveryVerb, WritesADocumentedEventALineWhenAskedForProgressAsJson) {
    forEach([&](const Words& verb, const VerbCase& row) {
        const Said said = quilctl(Words{"--progress", "json", "--json"} + verb + row.arguments);
        EXPECT_EQ(said.code, row.code);
        std::istringstream lines(said.err);
        bool hasError = false;
        for (std::string line; std::getline(lines, line);) {
            const auto event = nlohmann::json::parse(line);
            EXPECT_EQ(event["schema"], 1);
            const std::string name = event["event"];
            hasError = hasError || name == "error";
            for (const auto& [member, value] : event.items()) {
                if (member == "schema" || member == "event") continue;
                EXPECT_THAT(documentedRowOf(name), HasSubstr("`" + member + "`")) << line;
            }
        }
        EXPECT_EQ(hasError, said.code != tools::kOk);
    });
}

TEST_F(QuilctlEveryVerb, PrintsAWrongCommandLineAsJsonWhenAskedForJson) {
    forEach([&](const Words& verb, const VerbCase& row) {
        const Said said = quilctl(verb + row.arguments + Words{"--no-such-option", "--json"});
        EXPECT_EQ(said.code, tools::kUsage);
        const auto json = nlohmann::json::parse(said.out);
        EXPECT_EQ(json["error"]["kind"], "usage");
        EXPECT_THAT(std::string(json["error"]["message"]), HasSubstr("'--no-such-option'"));
        EXPECT_THAT(said.err, HasSubstr("quilctl: unknown word '--no-such-option'"));
    });
}

TEST_F(QuilctlEveryVerb, SaysOnTheErrorStreamWhyItFailed) {
    forEach([&](const Words& verb, const VerbCase& row) {
        const Said said = quilctl(Words{"--quiet"} + verb + row.arguments);
        EXPECT_EQ(said.code, row.code);
        EXPECT_EQ(said.err.empty(), said.code == tools::kOk) << said.err;
    });
}

TEST_F(QuilctlEveryVerb, FailsWhenStandardOutputCannotBeWritten) {
    forEach([&](const Words& verb, const VerbCase& row) {
        EXPECT_EQ(codeOnFullDisk(Words{"--json"} + verb + row.arguments), tools::kNotWritten);
        if (row.code != tools::kOk) return;
        std::filesystem::remove_all(directory / "new");
        EXPECT_EQ(codeOnFullDisk(verb + row.arguments), tools::kNotWritten);
    });
}

TEST_F(QuilctlEveryVerb, DoesNothingWhenTheTraceOfItsBoardCannotBeWritten) {
    forEach([&](const Words& verb, const VerbCase& row) {
        if (!row.powersBoard) return;
        const Said said = quilctl(Words{"--trace", path("none/t.vcd")} + verb + row.arguments);
        EXPECT_EQ(said.code, tools::kNotWritten);
        EXPECT_EQ(said.err, "quilctl: --trace: " + path("none/t.vcd") +
                                ": cannot be written: No such file or directory\n");
    });
}

// An option of a board, and the commands that take it although they power none.
struct BoardOptionCase {
    Words option;
    std::set<std::string> takenBy;
};

TEST_F(QuilctlEveryVerb, RefusesTheOptionsOfABoardThatHaveNoEffectOnIt) {
    const BoardOptionCase options[] = {
        {{"--board", path("none")},
         {"board show", "board check", "board repair", "config check", "serve", "page", "status",
          "monitor", "board reset", "power cut", "power on", "fault add", "fault list",
          "fault clear"}},
        {{"--product", "Kestrel"},
         {"board new", "board check", "board repair", "config check", "serve"}},
        {{"--trace", path("t.txt")}, {}},
        {{"--log-level", "D"}, {}},
        {{"--seed", "7"}, {"mcu model", "serve"}},
        {{"--realtime"}, {"mcu model", "serve"}},
    };
    forEach([&](const Words& verb, const VerbCase& row) {
        if (row.powersBoard) return;
        for (const auto& [option, takenBy] : options) {
            if (takenBy.count(textOf(verb)) != 0) continue;
            const Said said = quilctl(option + verb + row.arguments);
            EXPECT_EQ(said.code, tools::kUsage) << option.front();
            EXPECT_THAT(said.err,
                        HasSubstr("quilctl: " + option.front() + ": no effect on " + textOf(verb)));
        }
    });
}

// The trace's first line has the seed, and its last one the time.
TEST_F(QuilctlEveryVerb, TakesEachOptionOfABoardThatItPowers) {
    const std::string trace = path("t.txt");
    forEach([&](const Words& verb, const VerbCase& row) {
        if (!row.powersBoard) return;
        EXPECT_EQ(quilctl(Words{"--board", path("none")} + verb + row.arguments).code,
                  tools::kUsage);
        const Words logged = {"--log-level", "D"};
        if (!row.logs) {
            EXPECT_EQ(quilctl(logged + verb + row.arguments).code, tools::kUsage);
        }
        const Said said = quilctl(Words{"--seed", "7", "--trace", trace} +
                                  (row.logs ? logged : Words{}) + verb + row.arguments);
        EXPECT_EQ(said.code, row.code);
        EXPECT_THAT(board::readWholeFile(trace).value_or(""), HasSubstr("board: on, seed 7\n"));
        if (row.logs) {
            EXPECT_THAT(said.err, HasSubstr("D/"));
        }
    });
}

TEST_F(QuilctlEveryVerb, HasHelpWithAnExampleAndTheWayToTheGlobalOptions) {
    for (const tools::Program* program : {&tools::kBoardProgram, &tools::kDeviceProgram}) {
        for (const Words& verb : tools::verbsOf(*program)) {
            SCOPED_TRACE(textOf(verb));
            const Said said = runProgram(*program, verb + Words{"--help"});
            EXPECT_EQ(said.code, tools::kOk);
            EXPECT_THAT(said.out, HasSubstr("Example"));
            EXPECT_THAT(said.out, HasSubstr("described by quilctl --help:\n  --help"));
            EXPECT_THAT(said.err, IsEmpty());
            EXPECT_EQ(runProgram(*program, Words{"help"} + verb).out, said.out);
        }
    }
}

TEST(QuilctlExitCodes, AreATableInTheHelpAndInTheDocument) {
    const std::string help = quilctl({"--help"}).out;
    const std::string document = projectText("docs/quilctl.md");
    int last = -1;
    for (const tools::ExitCodeRow& row : tools::kExitCodes) {
        const std::string code = std::to_string(row.code);
        EXPECT_GT(row.code, last) << "the table is in order";
        last = row.code;
        EXPECT_THAT(help, HasSubstr("  " + code + "  " + row.meaning + "\n"));
        EXPECT_THAT(document, HasSubstr("| " + code + " | `" + row.name + "` | " + row.meaning));
    }
}

TEST(QuilctlWords, UnknownWordsAreNamedWithTheNearestKnownOnes) {
    EXPECT_EQ(quilctl({"gte", "1"}).err,
              "quilctl: unknown word 'gte'; the nearest: get (see quilctl --help)\n");
    EXPECT_EQ(quilctl({"mcu", "updat"}).err,
              "quilctl: unknown word 'updat'; the nearest: update (see quilctl mcu --help)\n");
    EXPECT_THAT(quilctl({"--tarce", "x.vcd", "get", "1"}).err,
                HasSubstr("unknown word '--tarce'; the nearest: --trace "));
    EXPECT_THAT(quilctl({"get", "1", "--dta", "1"}).err, HasSubstr("the nearest: --data "));
    EXPECT_THAT(quilctl({"power", "zzz"}).err,
                HasSubstr("'zzz'; known: low, normal, cut, on (see"));
    EXPECT_THAT(quilctl({"help", "mcu", "modle"}).err, HasSubstr("the nearest: model"));
}

TEST(QuilctlWords, MissingCommandIsAnsweredWithTheCommands) {
    EXPECT_THAT(
        quilctl({"fpga"}).err,
        HasSubstr("a command is missing: status, load, info, flash (see quilctl fpga --help)"));
}

TEST(QuilctlWords, VersionIsTheProjects) {
    const std::string version = quilctl({"--version"}).out;
    EXPECT_EQ(version.rfind("quilctl ", 0), 0U);
    const std::string number = version.substr(8, version.size() - 9);
    EXPECT_THAT(projectText("CMakeLists.txt"), HasSubstr("project(quil VERSION " + number + " "));
}

TEST(QuilctlWords, ProgressAsJsonHasWrongCommandLinesAsWell) {
    const Said said = quilctl({"--progress=json", "gte", "1"});
    EXPECT_EQ(nlohmann::json::parse(said.err)["kind"], "usage");
    EXPECT_EQ(quilctl({"--progress", "xml", "get", "1"}).code, tools::kUsage);
}

TEST(QuilctlWords, QuietTurnsProgressAndLogAway) {
    const Words words = {"--log-level", "D", "mcu", "update", "--installed", "V0.9.0"};
    EXPECT_THAT(quilctl(words).err, Not(IsEmpty()));
    EXPECT_THAT(quilctl(Words{"--quiet"} + words).err, IsEmpty());
}

class QuilctlBoardState : public QuilctlRun {};

TEST_F(QuilctlBoardState, BoardOfTheEnvironmentIsTheOneWithoutAnOption) {
    const std::string board = newBoard();
    ASSERT_EQ(quilctl({"--board", board, "set", "0x102", "0A"}).code, tools::kOk);
    setenv("QUIL_BOARD", board.c_str(), 1);
    const Said said = quilctl({"get", "0x102"});
    unsetenv("QUIL_BOARD");
    EXPECT_EQ(said.out, "0A\n");
}

// A directory where a file is to be written fails for every user, root too.
TEST_F(QuilctlBoardState, ValueThatTheBoardCannotKeepIsNotReportedAsSet) {
    const std::string board = newBoard();
    std::filesystem::create_directory(board + "/mcu/values" + ::quil::board::kFreshSuffix);
    const Said said = quilctl({"--board", board, "set", "0x102", "0A"});
    EXPECT_EQ(said.code, tools::kNoBoard);
    EXPECT_THAT(said.out, IsEmpty());
    EXPECT_EQ(said.err, "quilctl: the board's state is lost: " + board +
                            "/mcu/values: cannot be written: File exists\n");
}

TEST_F(QuilctlBoardState, ImageThatTheBoardCannotKeepIsNotReportedAsProgrammed) {
    const std::string board = newBoard();
    std::filesystem::create_directory(board + "/mcu/flash" + ::quil::board::kFreshSuffix);
    const Said said = quilctl({"--board", board, "mcu", "program", "--as-is", "--chip", "gd32f303",
                               imageFile(std::string(512, 'x'))});
    EXPECT_EQ(said.code, tools::kNoBoard);
    EXPECT_THAT(said.out, IsEmpty());
    EXPECT_THAT(said.err, HasSubstr("mcu/flash: cannot be written: File exists\n"));
}

// The program itself, with the shell's exit code.
std::string shell(const std::string& words) {
    return outputOf(QUIL_EMULATOR " '" QUIL_BIN_DIR "/quilctl' " + words + "; echo \"code $?\"");
}

TEST(QuilctlProgram, SaysWhyStandardOutputCannotBeWritten) {
    EXPECT_EQ(shell("get 1 2>&1 >/dev/full"),
              "quilctl: standard output cannot be written: No space left on device\ncode 5\n");
    EXPECT_EQ(shell("get 1 2>&1 >&-"),
              "quilctl: standard output cannot be written: Bad file descriptor\ncode 5\n");
    EXPECT_EQ(shell("--help 2>&1 >/dev/full"),
              "quilctl: standard output cannot be written: No space left on device\ncode 5\n");
}

TEST(QuilctlProgram, KeepsItsExitCodeWithoutAnErrorStream) {
    for (const std::string lost : {" 2>/dev/full", " 2>&-"}) {
        EXPECT_EQ(shell("get 1" + lost), "56 31 2E 30 2E 30\ncode 0\n");
        EXPECT_EQ(shell("gte 1" + lost), "code 2\n");
        EXPECT_EQ(shell("get 1 >&- <&-" + lost), "code 5\n");
    }
}

const std::string kPlaceRemedy =
    "quilctl: remedy: set TMPDIR to a folder with room for a board, or name a board with --board\n";

// What the surroundings of a program may lack, and what it says then.
TEST(QuilctlProgram, SaysWhatItsSurroundingsLack) {
    const auto with = [](const std::string& before) {
        return outputOf(before + QUIL_EMULATOR " '" QUIL_BIN_DIR
                                               "/quilctl' get 1 2>&1; echo \"code $?\"");
    };
    const std::string answer = "56 31 2E 30 2E 30\ncode 0\n";
    EXPECT_EQ(with("unset HOME; "), answer);
    EXPECT_EQ(with("exec <&-; "), answer);
    EXPECT_EQ(
        with("TMPDIR=/none "),
        "quilctl: no temporary board: TMPDIR /none cannot be used: No such file or directory\n" +
            kPlaceRemedy + "code 4\n");
    EXPECT_EQ(with("TMPDIR=/dev/full "),
              "quilctl: no temporary board: TMPDIR /dev/full cannot be used: Not a directory\n" +
                  kPlaceRemedy + "code 4\n");
    EXPECT_EQ(with("cd $(mktemp -d); rmdir $PWD; QUIL_BOARD=b "),
              "quilctl: the working directory is gone (cd to another one): No such file or "
              "directory\ncode 4\n");
    if (QUIL_SANITIZED) return;  // a sanitizer writes files of its own
    EXPECT_THAT(with("ulimit -f 0; "),
                AllOf(StartsWith("quilctl: no temporary board: "),
                      EndsWith(": File too large\n" + kPlaceRemedy + "code 4\n")));
}

}  // namespace
}  // namespace quil::tests
