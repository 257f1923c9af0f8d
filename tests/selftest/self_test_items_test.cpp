// The nine items: what each calls, reports and logs.
#include <algorithm>

#include "testing/self_test_fixture.h"

namespace quil::tests {

using board::Fault;
using board::Health;
using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;

namespace {

struct Item {
    const char* function;
    self_test_func_t test;
    const char* part;  // "" when it probes nothing
    const char* line;  // of a healthy board
};

void PrintTo(const Item& item, std::ostream* out) { *out << item.function; }

const Item kProbing[] = {
    {"checkRtcState", checkRtcState, board::kRtc, "X:OK\r\n"},
    {"checkES8316State", checkES8316State, board::kCodecs, "X:OK\r\n"},
    {"checkWifiApState", checkWifiApState, board::kWifiAp, "X:OK\r\n"},
    {"checkWifiStaState", checkWifiStaState, board::kWifiSta, "X:OK\r\n"},
    {"checkIDT6965State", checkIDT6965State, board::kClockChip, "X:OK\r\n"},
};
const Item kFixedItems[] = {
    {"testItem6", testItem6, "", "X:OK\r\n"},
    {"testItem7", testItem7, "", "X:Error\r\n"},
    {"testItem8", testItem8, "", "X:Error\r\n"},
    {"testItem9", testItem9, "", "X:OK\r\n"},
};

}  // namespace

class SelfTestItems : public SelfTestFixture {
  protected:
    std::string lineOf(self_test_func_t test, unsigned size = 64) {
        char line[64] = "before";
        result = test("X", line, size);
        return line;
    }
    size_t probes() {
        const auto events = board.trace().events();
        return static_cast<size_t>(std::count_if(
            events.begin(), events.end(),
            [](const board::Event& event) { return event.kind == board::EventKind::kProbe; }));
    }

    int result = 99;
};

TEST_F(SelfTestItems, TableHoldsTheNineItemsInOrder) {
    const test_option_t expected[] = {
        {1, "RTC", checkRtcState, 0, {}},         {2, "ES8316", checkES8316State, 0, {}},
        {3, "WIFI AP", checkWifiApState, 0, {}},  {4, "WIFI STA", checkWifiStaState, 0, {}},
        {5, "IDT6965", checkIDT6965State, 0, {}}, {6, "Test LORA", testItem6, 0, {}},
        {7, "Test GMAC", testItem7, 0, {}},       {8, "Test TCP", testItem8, 0, {}},
        {9, "Test UDP", testItem9, 0, {}},
    };
    for (size_t i = 0; i < 9; ++i) {
        EXPECT_EQ(test_option_table[i].id, expected[i].id);
        EXPECT_STREQ(test_option_table[i].name, expected[i].name);
        EXPECT_EQ(test_option_table[i].testFunc, expected[i].testFunc);
        EXPECT_THAT(test_option_table[i].reserved, ElementsAre(0, 0, 0));
    }
}

class EachItem : public SelfTestItems, public testing::WithParamInterface<Item> {};
INSTANTIATE_TEST_SUITE_P(Probing, EachItem, testing::ValuesIn(kProbing));
INSTANTIATE_TEST_SUITE_P(Fixed, EachItem, testing::ValuesIn(kFixedItems));

TEST_P(EachItem, SaysItsLineOnAHealthyBoardAndLogsNothing) {
    parseProduct();
    EXPECT_EQ(lineOf(GetParam().test), GetParam().line);
    EXPECT_EQ(result, 0);
    EXPECT_THAT(board.log(), IsEmpty());
    EXPECT_EQ(probes(), *GetParam().part != '\0' ? 1U : 0U);
}

TEST_P(EachItem, RefusesANullNameOrBufferWithAnError) {
    parseProduct();
    char line[64] = "before";
    EXPECT_EQ(GetParam().test(nullptr, line, 64), -1);
    EXPECT_EQ(GetParam().test("X", nullptr, 64), -1);
    EXPECT_STREQ(line, "before");
    const std::string message =
        std::string(GetParam().function) + ": invalid testName or resultStr is NULL\n";
    const auto isMessage =
        AllOf(Field(&board::LogLine::priority, ANDROID_LOG_ERROR),
              Field(&board::LogLine::tag, kServiceTag), Field(&board::LogLine::text, message));
    EXPECT_THAT(board.logLines(), ElementsAre(isMessage, isMessage));
    EXPECT_EQ(probes(), 0U);
}

TEST_P(EachItem, CutsItsLineAtTheSizeGiven) {
    parseProduct();
    EXPECT_EQ(lineOf(GetParam().test, 4), "X:" + std::string(GetParam().line).substr(2, 1));
    EXPECT_EQ(result, 0);
}

class ProbingItem : public SelfTestItems, public testing::WithParamInterface<Item> {};
INSTANTIATE_TEST_SUITE_P(Each, ProbingItem, testing::ValuesIn(kProbing));

TEST_P(ProbingItem, SaysErrorForAFaultyPartLogsItAndReturnsZero) {
    parseProduct();
    board.probes().setHealth(GetParam().part, Health::kFaulty);
    EXPECT_EQ(lineOf(GetParam().test), "X:Error\r\n");
    EXPECT_EQ(result, 0);
    EXPECT_THAT(board.logLines(),
                ElementsAre(AllOf(Field(&board::LogLine::priority, ANDROID_LOG_ERROR),
                                  Field(&board::LogLine::tag, kServiceTag),
                                  Field(&board::LogLine::text,
                                        GetParam().function + std::string(": test failed\n")))));
}

TEST_P(ProbingItem, TakesAPositiveAnswerForAFaultToo) {
    parseProduct();
    board.probes().setHealth(GetParam().part, Health::kAbsent);  // answers 1
    EXPECT_EQ(lineOf(GetParam().test), "X:Error\r\n");
    EXPECT_EQ(result, 0);
}

TEST_F(SelfTestItems, FaultOfOneProbeIsGoneAtTheNext) {
    board.faults().add(Fault{.call = board::Call::kProbe, .path = board::kRtc, .error = 5});
    EXPECT_EQ(lineOf(checkRtcState), "X:Error\r\n");
    EXPECT_EQ(lineOf(checkRtcState), "X:OK\r\n");
}

TEST_F(SelfTestItems, CodecsAreProbedInOrderAndTheLastOneIsTheVerdict) {
    parseProduct();
    config_info->audio_num = 2;  // the board has only one
    EXPECT_EQ(lineOf(checkES8316State), "X:Error\r\n");
    EXPECT_EQ(probes(), 2U);
    EXPECT_THAT(board.log(), ElementsAre("checkES8316State: test failed\n"));
}

TEST_F(SelfTestItems, HealthyLastCodecHidesAFaultyOneBeforeIt) {
    parseProduct();
    config_info->audio_num = 2;
    board.faults().add(Fault{.call = board::Call::kProbe, .path = "es8316.0", .error = 5});
    board.faults().add(Fault{.call = board::Call::kProbe, .path = "es8316.1", .error = 0});
    EXPECT_EQ(lineOf(checkES8316State), "X:OK\r\n");
    EXPECT_EQ(result, 0);
    EXPECT_THAT(board.log(), ElementsAre("checkES8316State: test failed\n"));
}

TEST_F(SelfTestItems, EachFaultyCodecIsLogged) {
    parseProduct();
    config_info->audio_num = 3;
    board.probes().setHealth(board::kCodecs, Health::kFaulty);
    lineOf(checkES8316State);
    EXPECT_EQ(board.log(ANDROID_LOG_ERROR).size(), 3U);
}

TEST_F(SelfTestItems, CodecsEndAfter256) {
    parseProduct();
    config_info->audio_num = 300;
    EXPECT_EQ(lineOf(checkES8316State), "X:Error\r\n");
    EXPECT_EQ(probes(), 256U);
}

TEST_F(SelfTestItems, NoCodecsAreAnErrorThatNamesTheirNumber) {
    parseProduct();
    config_info->audio_num = -4;
    EXPECT_EQ(lineOf(checkES8316State), "before");
    EXPECT_EQ(result, -1);
    config_info->audio_num = 0;
    EXPECT_EQ(lineOf(checkES8316State), "before");
    EXPECT_EQ(result, -1);
    EXPECT_THAT(board.log(ANDROID_LOG_ERROR),
                ElementsAre("checkES8316State: config_info is NULL or audio_num id -4, please "
                            "check ini file\n",
                            "checkES8316State: config_info is NULL or audio_num id 0, please "
                            "check ini file\n"));
    EXPECT_EQ(probes(), 0U);
}

TEST_F(SelfTestItems, CodecsBeforeTheParseShowTheNumberZero) {
    EXPECT_EQ(lineOf(checkES8316State), "before");
    EXPECT_EQ(result, -1);
    EXPECT_THAT(board.log(ANDROID_LOG_ERROR),
                ElementsAre("checkES8316State: config_info is NULL or audio_num id 0, please "
                            "check ini file\n"));
}

TEST_F(SelfTestItems, WriteToFileAppendsTheTextAndANewline) {
    EXPECT_EQ(writeToFile("/sdcard/a", "one"), 0);
    EXPECT_EQ(writeToFile("/sdcard/a", "two\r\n"), 0);
    EXPECT_EQ(contentOf(board.hostPath("/sdcard/a")), "one\ntwo\r\n\n");
    EXPECT_THAT(board.log(), IsEmpty());
}

TEST_F(SelfTestItems, WriteToFileThatCannotBeOpenedSaysSo) {
    EXPECT_EQ(writeToFile("/sdcard/no/such/folder", "one"), -1);
    EXPECT_EQ(writeToFile(nullptr, "one"), -1);
    EXPECT_EQ(writeToFile("/sdcard/a", nullptr), -1);
    EXPECT_FALSE(std::filesystem::exists(board.hostPath("/sdcard/a")));
    const auto said = AllOf(Field(&board::LogLine::priority, ANDROID_LOG_ERROR),
                            Field(&board::LogLine::tag, kServiceTag),
                            Field(&board::LogLine::text, "writeToFile Failed to open file\n"));
    EXPECT_THAT(board.logLines(), ElementsAre(said, said, said));
}

}  // namespace quil::tests
