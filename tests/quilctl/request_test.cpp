// quilctl get and set: commands by name, and commands that nobody knows.
#include <gmock/gmock.h>

#include <sstream>

#include "tests/quilctl/test_run.h"

namespace quil::tests {

using testing::Each;
using testing::HasSubstr;

namespace {

std::vector<size_t> widthsOf(const std::string& text) {
    std::vector<size_t> widths;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) widths.push_back(line.size());
    return widths;
}

}  // namespace

TEST(QuilctlRequest, CommandsHaveNames) {
    EXPECT_EQ(quilctl({"get", "version"}).out, quilctl({"get", "1"}).out);
    EXPECT_EQ(resultOf(quilctl({"--json", "get", "self-test"}))["command"], 0xFFFFFFF4U);
}

TEST(QuilctlRequest, MisspelledNameIsAnsweredWithTheNearest) {
    const Said said = quilctl({"get", "vresion"});
    EXPECT_EQ(said.code, tools::kUsage);
    EXPECT_THAT(said.err, HasSubstr("the nearest: version"));
    EXPECT_THAT(quilctl({"get", "banana"}).err,
                HasSubstr("nor a name: version, low-power, normal-power, self-test"));
}

TEST(QuilctlRequest, NameThatIsOnlyReadIsNotSet) {
    const Said said = quilctl({"set", "version", "01"});
    EXPECT_EQ(said.code, tools::kUsage);
    EXPECT_THAT(said.err, HasSubstr("version is only read (its number, 0x00000001, is sent all"));
    EXPECT_EQ(quilctl({"set", "1", "01"}).code, tools::kOk);
}

TEST(QuilctlRequest, AnswerToACommandThatTheMcuDoesNotKnowIsAFailureThatSaysSo) {
    const Said said = quilctl({"get", "0x999"});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_EQ(said.out, "00 00 00 00\n");
    EXPECT_THAT(said.err, HasSubstr("get 0x00000999: the MCU does not know this command"));
    EXPECT_EQ(resultOf(quilctl({"--json", "get", "0x999"}))["known"], false);
    EXPECT_EQ(resultOf(quilctl({"--json", "get", "1"}))["known"], true);
}

TEST(QuilctlRequest, CommandThatNobodyAnswersIsSaidToBeOne) {
    EXPECT_THAT(quilctl({"get", "0xF5000002"}).err,
                HasSubstr("no answer: nobody answers it (see quilctl commands list)"));
}

TEST(QuilctlRequest, ListOfCommandsCoversEveryNumberOnceAndFitsATerminal) {
    const auto commands = resultOf(quilctl({"--json", "commands", "list"}))["commands"];
    uint64_t next = 0;
    for (const auto& row : commands) {
        EXPECT_EQ(row["first"], next);
        next = row["last"].get<uint64_t>() + 1;
    }
    EXPECT_EQ(next, uint64_t{1} << 32);
    EXPECT_THAT(widthsOf(quilctl({"commands", "list"}).out), Each(testing::Le(80U)));
}

}  // namespace quil::tests
