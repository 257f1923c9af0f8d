// What quilctl prints on a terminal: within its columns, each line once, in colour where that is
// wanted.
#include <gmock/gmock.h>
#include <pty.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <regex>

#include "testing/build.h"
#include "testing/verb_cases.h"
#include "tests/quilctl/test_run.h"
#include "tools/quilctl/output/wrap.h"

namespace quil::tests {
namespace {

using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using tools::Screen;
using tools::Words;
using tools::wrapped;

TEST(WrappedText, BreaksAtSpacesAndIndentsWhatFollows) {
    EXPECT_EQ(wrapped("one two three four\n", 10), "one two\n  three\n  four\n");
    EXPECT_EQ(wrapped("short\n\nlines\n", 10), "short\n\nlines\n");
    EXPECT_EQ(wrapped("exactly 10", 10), "exactly 10");
    EXPECT_EQ(wrapped("no limit at all", 0), "no limit at all");
}

TEST(WrappedText, StaysBelowTheColumnOfATableThatLeavesRoom) {
    EXPECT_EQ(wrapped("ab  c  some words here\n", 16), "ab  c  some\n       words\n       here\n");
    EXPECT_EQ(wrapped("            deep text here", 20), "            deep\n          text here");
}

TEST(WrappedText, LeavesALongWordWholeAndBreaksListsBehindCommas) {
    EXPECT_EQ(wrapped("a /a/very/long/path b\n", 10), "a\n  /a/very/long/path\n  b\n");
    EXPECT_EQ(wrapped("{one,two,three}", 8), "{one,\n  two,\n  three}");
}

TEST(WrappedText, CountsNeitherStylesNorTheFurtherBytesOfACharacter) {
    EXPECT_EQ(wrapped("\033[1;31mFAILED\033[0m as told", 14), "\033[1;31mFAILED\033[0m as told");
    EXPECT_EQ(wrapped("\xC3\xA4\xC3\xB6\xC3\xBC abc", 7), "\xC3\xA4\xC3\xB6\xC3\xBC abc");
}

// What a person sees, and what a terminal was sent.
std::string withoutStyles(const std::string& text) {
    return std::regex_replace(text, std::regex("\033\\[[0-9;]*m"), "");
}

std::vector<std::string> shownLinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(withoutStyles(text));
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines.push_back(line);
    }
    return lines;
}

// A line's text after each time that it was written over.
std::vector<std::string> writtenOver(const std::string& line) {
    static const std::string again = "\r\033[K";
    std::vector<std::string> texts;
    size_t begin = 0;
    for (size_t end = 0; (end = line.find(again, begin)) != std::string::npos;) {
        texts.push_back(line.substr(begin, end - begin));
        begin = end + again.size();
    }
    texts.push_back(line.substr(begin));
    return texts;
}

bool isOneWord(const std::string& line) {
    const size_t first = line.find_first_not_of(' ');
    return first == std::string::npos || line.find(' ', first) == std::string::npos;
}

void expectFits(const std::string& text, size_t columns) {
    std::string before;
    for (const std::string& line : shownLinesOf(text)) {
        EXPECT_FALSE(line == before && !line.empty()) << "twice: " << line;
        before = line;
        for (const std::string& shown : writtenOver(line)) {
            EXPECT_TRUE(shown.size() <= columns || isOneWord(shown)) << shown;
        }
    }
}

struct Shown {
    int code;
    std::string out, err;
};

Shown shownOn(const Screen& screen, const Words& words) {
    std::istringstream in;
    std::ostringstream out, err;
    const int code = exitCodeOf(tools::kBoardProgram, words, {in, out, err, screen, screen});
    return {code, out.str(), err.str()};
}

class QuilctlOnATerminal : public QuilctlRun {};

TEST_F(QuilctlOnATerminal, EveryCommandAndItsHelpStayWithinTheColumns) {
    makeVerbFiles(directory);
    const auto cases = verbCases(directory);
    for (const size_t columns : {80U, 40U}) {
        for (const Words& verb : tools::verbsOf(tools::kBoardProgram)) {
            std::string words;
            for (const std::string& word : verb) words += (words.empty() ? "" : " ") + word;
            SCOPED_TRACE(words + " in " + std::to_string(columns) + " columns");
            Words help = verb;
            help.emplace_back("--help");
            expectFits(shownOn({true, true, columns}, help).out, columns);
            const auto row = cases.find(words);
            if (row == cases.end() || words == "completion" || words == "man") continue;
            std::filesystem::remove_all(directory / "new");
            Words all = verb;
            all.insert(all.end(), row->second.arguments.begin(), row->second.arguments.end());
            const Shown shown = shownOn({true, true, columns}, all);
            EXPECT_EQ(shown.code, row->second.code);
            expectFits(shown.out, columns);
            expectFits(shown.err, columns);
        }
    }
}

TEST_F(QuilctlOnATerminal, HelpIsAtMost80ColumnsWideEverywhere) {
    for (const Words& verb : tools::verbsOf(tools::kBoardProgram)) {
        Words help = verb;
        help.emplace_back("--help");
        expectFits(shownOn({}, help).out, 80);
        expectFits(shownOn({true, true, 200}, help).out, 80);
    }
    expectFits(shownOn({}, {"--help"}).out, 80);
}

TEST_F(QuilctlOnATerminal, StageIsShownOnceAndInColourWhenItFailed) {
    for (const Words& words :
         {Words{"boot", "--fault", "link"}, {"fpga", "load", "--fault", "link"}}) {
        const Shown shown = shownOn({true, true, 80}, words);
        EXPECT_THAT(shown.out, ContainsRegex("network .*\033\\[1;31mFAILED\033\\[0m"));
        EXPECT_THAT(shown.err, Not(HasSubstr("network   ")));
        EXPECT_THAT(shownOn({true, false, 80}, words).out, Not(HasSubstr("\033")));
        EXPECT_THAT(shownOn({}, words).err, Not(HasSubstr("network   ")));
    }
}

TEST_F(QuilctlOnATerminal, StageIsToldAsProgressWhereTheResultIsNotOnView) {
    const std::string row = "s  network              FAILED\n";
    EXPECT_THAT(quilctl({"--progress", "text", "boot", "--fault", "link"}).err, HasSubstr(row));
    EXPECT_THAT(quilctl({"--json", "boot", "--fault", "link"}).err, HasSubstr(row));
    EXPECT_THAT(quilctl({"--progress", "none", "--json", "boot", "--fault", "link"}).err,
                Not(HasSubstr(row)));
}

TEST_F(QuilctlOnATerminal, ProgressOffATerminalIsALineForTenPercent) {
    const std::string image = imageFile(std::string(16384, 'x'));
    const Said said = quilctl({"mcu", "program", "--as-is", "--chip", "gd32f470", image});
    EXPECT_EQ(said.code, tools::kOk);
    const auto lines = shownLinesOf(said.err);
    const auto isWrite = [](const std::string& line) {
        return line.find("  write ") != std::string::npos;
    };
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), isWrite), 11);
}

TEST_F(QuilctlOnATerminal, LogLineThatComesAgainAndAgainIsCounted) {
    const Said said = quilctl(
        {"mcu", "program", "--as-is", "--chip", "gd32f303", imageFile(std::string(400000, 'x'))});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_LT(shownLinesOf(said.err).size(), 40U);
    EXPECT_THAT(said.err, ContainsRegex("[0-9]+ more log lines: writememory_2mcu: "));
}

// The program itself on a pty of that width; NO_COLOR and TERM as given.
std::string onPty(unsigned short columns, const char* environment, const char* command) {
    winsize size{};
    size.ws_row = 24;
    size.ws_col = columns;
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, &size);
    if (child == 0) {
        const std::string line =
            std::string(environment) + " " QUIL_EMULATOR " '" QUIL_BIN_DIR "/quilctl' " + command;
        execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
        _exit(127);
    }
    std::string text;
    std::array<char, 4096> chunk{};
    for (ssize_t n = 0; (n = read(terminal, chunk.data(), chunk.size())) > 0;) {
        text.append(chunk.data(), static_cast<size_t>(n));
    }
    close(terminal);
    waitpid(child, nullptr, 0);
    return text;
}

TEST(QuilctlOnAPty, FitsItsColumnsAndHasOneBarForAProgramming) {
    for (const unsigned short columns : {80, 40}) {
        const std::string text = onPty(columns, "TERM=xterm", "mcu update --installed V0.9.0");
        expectFits(text, columns);
        const auto lines = shownLinesOf(text);
        const auto isBar = [](const std::string& line) {
            return line.find("100% [####") != std::string::npos;
        };
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(), isBar), 1) << text;
        EXPECT_LT(lines.size(), 12U) << text;
        EXPECT_THAT(lines.back(), "V0.9.0 -> V1.0.0");
    }
}

TEST(QuilctlOnAPty, ColourIsHeldBackForNoColorAndForADumbTerminal) {
    const std::string red = "\033[1;31mFAILED";
    EXPECT_THAT(onPty(80, "TERM=xterm", "boot --fault link"), HasSubstr(red));
    EXPECT_THAT(onPty(80, "TERM=xterm NO_COLOR=1", "boot --fault link"), Not(HasSubstr(red)));
    EXPECT_THAT(onPty(80, "TERM=dumb", "boot --fault link"), Not(HasSubstr(red)));
}

}  // namespace
}  // namespace quil::tests
