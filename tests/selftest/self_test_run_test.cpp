// A whole run: selection, record, result file, standard output and log.
#include <errno.h>
#include <stdio_ext.h>
#include <stdlib.h>

#include <utility>

#include "testing/fresh_process.h"
#include "testing/self_test_fixture.h"

namespace quil::tests {

using board::Health;
using board::SdCard;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr unsigned kRefused = 0xFFFFFFFF;

Bytes headerOf(uint8_t textLength, uint8_t verdict, uint8_t count) {
    return {0xF4, 0xFF, 0xFF, 0xFF, 0, 0, static_cast<uint8_t>(textLength + 2), 0, verdict, count};
}

}  // namespace

class SelfTestRun : public SelfTestFixture {};

TEST_F(SelfTestRun, ItemsOneThreeAndFiveFillRecordAndFileInThatOrder) {
    const unsigned length = runWith("1-3-5");
    EXPECT_EQ(length, 10U + 32U);
    EXPECT_EQ(header(), headerOf(32, 0, 3));
    EXPECT_EQ(text(length), "RTC:OK\r\nWIFI AP:OK\r\nIDT6965:OK\r\n");
    EXPECT_EQ(resultFile(), "RTC:OK\r\n\nWIFI AP:OK\r\n\nIDT6965:OK\r\n\n");
    EXPECT_THAT(Bytes(record.begin() + length, record.end()), Each(0));
}

TEST_F(SelfTestRun, PrintsItsProgressOnStandardOutput) {
    runWith("5-1");
    EXPECT_EQ(printed,
              "runSelfTestAndGetResult select_test_items = 2, num_test_options = 9\n"
              "runSelfTestAndGetResult Running testFunc[0]: RTC\n"
              "runSelfTestAndGetResult Running testFunc[4]: IDT6965\n");
}

TEST_F(SelfTestRun, ProgressHasLeftTheProcessWhenTheRunReturns) {
    runWith("1");
    printed = standardOutputOf([&] {
        setvbuf(stdout, nullptr, _IOFBF, 4096);
        runSelfTestAndGetResult(record.data(), 1024);
        __fpurge(stdout);
    });
    EXPECT_THAT(printed, HasSubstr("Running testFunc[0]: RTC\n"));
}

TEST_F(SelfTestRun, ItemsRunInTheOrderOfTheTable) {
    const unsigned length = runWith("5-1");
    EXPECT_EQ(text(length), "RTC:OK\r\nIDT6965:OK\r\n");
}

TEST_F(SelfTestRun, ErrorLinesOfThePlaceholdersAreNoFailure) {
    const unsigned length = runWith("7-8");
    EXPECT_EQ(text(length), "Test GMAC:Error\r\nTest TCP:Error\r\n");
    EXPECT_EQ(header(), headerOf(33, 0, 2));
}

TEST_F(SelfTestRun, PlaceholdersOfLoraAndUdpAreFine) {
    EXPECT_EQ(text(runWith("6-9")), "Test LORA:OK\r\nTest UDP:OK\r\n");
}

TEST_F(SelfTestRun, FaultyPartShowsInItsLineButNotInTheVerdict) {
    parseProduct();
    board.probes().setHealth(board::kRtc, Health::kFaulty);
    const unsigned length = runWith("1-5");
    EXPECT_EQ(text(length), "RTC:Error\r\nIDT6965:OK\r\n");
    EXPECT_EQ(header(), headerOf(23, 0, 2));
}

TEST_F(SelfTestRun, AllNineItemsFit) {
    const unsigned length = runWith("1-2-3-4-5-6-7-8-9");
    EXPECT_EQ(text(length),
              "RTC:OK\r\nES8316:OK\r\nWIFI AP:OK\r\nWIFI STA:OK\r\nIDT6965:OK\r\n"
              "Test LORA:OK\r\nTest GMAC:Error\r\nTest TCP:Error\r\nTest UDP:OK\r\n");
    EXPECT_EQ(record[9], 9);
}

class UnknownNumber : public SelfTestFixture, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Each, UnknownNumber,
                         testing::Values("0", "12", "10", "256", "257", "RTC", "4294967297"));

TEST_P(UnknownNumber, CountsButRunsNothing) {
    EXPECT_EQ(runWith(GetParam()), 10U);
    EXPECT_EQ(header(), headerOf(0, 0, 1));
    EXPECT_THAT(enabledRows(), IsEmpty());
    EXPECT_FALSE(hasResultFile());
    EXPECT_THAT(board.log(), IsEmpty());
}

TEST_F(SelfTestRun, HyphensAloneAreRefused) {
    EXPECT_EQ(runWith("---"), kRefused);
    EXPECT_THAT(board.logLines(),
                ElementsAre(AllOf(
                    Field(&board::LogLine::priority, ANDROID_LOG_ERROR),
                    Field(&board::LogLine::tag, kServiceTag),
                    Field(&board::LogLine::text,
                          "runSelfTestAndGetResult: invalid select_test_items is 0, please check "
                          "ini file.\n"))));
    EXPECT_EQ(printed, "");
    EXPECT_THAT(record, Each(0xEE));
}

TEST_F(SelfTestRun, HyphensAroundANumberAreNoNumbers) {
    EXPECT_EQ(text(runWith("--1--5-")), "RTC:OK\r\nIDT6965:OK\r\n");
    EXPECT_EQ(record[9], 2);
}

class MissingSetting : public SelfTestFixture, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Each, MissingSetting, testing::Values("", "UNDEF", "1-UNDEF"));

TEST_P(MissingSetting, RunsNothingWhenFreshAndCountsMinusOne) {
    EXPECT_EQ(runWith(GetParam()), 10U);
    EXPECT_EQ(header(), headerOf(0, 0, 0xFF));
    EXPECT_THAT(board.logLines(),
                ElementsAre(AllOf(Field(&board::LogLine::priority, ANDROID_LOG_ERROR),
                                  Field(&board::LogLine::tag, kServiceTag),
                                  Field(&board::LogLine::text,
                                        "parseAndConfigTestItem: self_test_items not config in "
                                        "ini, please check ini file\n"))));
    EXPECT_EQ(printed, "runSelfTestAndGetResult select_test_items = " +
                           std::to_string(static_cast<unsigned long>(-1)) +
                           ", num_test_options = 9\n");
}

TEST_F(SelfTestRun, BeforeTheParseTheSettingIsMissing) {
    EXPECT_EQ(parseAndConfigTestItem(), -1);
    EXPECT_EQ(run(), 10U);
    EXPECT_EQ(header(), headerOf(0, 0, 0xFF));
}

TEST_F(SelfTestRun, MissingSettingStillRunsWhatEarlierRunsSwitchedOn) {
    runWith("1");
    EXPECT_EQ(text(runWith("UNDEF")), "RTC:OK\r\n");
    EXPECT_EQ(header(), headerOf(8, 0, 0xFF));
}

TEST_F(SelfTestRun, ItemsStayOnFromOneRunToTheNext) {
    runWith("1");
    EXPECT_EQ(text(runWith("2")), "RTC:OK\r\nES8316:OK\r\n");
    EXPECT_EQ(record[9], 1);
}

TEST_F(SelfTestRun, ItemThatWritesNothingRepeatsTheLineBeforeItAndSetsTheVerdict) {
    parseProduct();
    config_info->audio_num = 0;
    EXPECT_EQ(text(runWith("1-2")), "RTC:OK\r\nRTC:OK\r\n");
    EXPECT_EQ(header(), headerOf(16, 1, 2));
    EXPECT_EQ(resultFile(), "RTC:OK\r\n\nRTC:OK\r\n\n");
    EXPECT_THAT(printed, HasSubstr("runSelfTestAndGetResult testFunc[1]: ES8316 failed\n"));
}

TEST_F(SelfTestRun, ItemThatWritesNothingAndIsFirstLeavesAnEmptyLine) {
    parseProduct();
    config_info->audio_num = 0;
    EXPECT_EQ(runWith("2"), 10U);
    EXPECT_EQ(header(), headerOf(0, 1, 1));
    EXPECT_EQ(resultFile(), "\n");
}

TEST_F(SelfTestRun, SettingThatFillsItsFieldWithoutATerminatorIsReadToItsEnd) {
    parseProduct();
    config_info->audio_num = 1;  // the field right behind the items
    const std::string items = "1-" + std::string(61, '0') + "3";
    ASSERT_EQ(items.size(), 64U);
    configure(items);
    EXPECT_EQ(parseAndConfigTestItem(), 2);
    EXPECT_THAT(enabledRows(), ElementsAre(0, 2));
}

TEST_F(SelfTestRun, OnlyTheLowByteOfARowsNumberCounts) {
    test_option_table[0].id = 0x101;
    parseProduct();
    configure("1");
    parseAndConfigTestItem();
    EXPECT_THAT(enabledRows(), ElementsAre(0));
    test_option_table[0].id = 1;
}

TEST_F(SelfTestRun, FirstRowOfANumberIsTheOneSwitchedOn) {
    test_option_table[3].id = 2;
    parseProduct();
    configure("2");
    parseAndConfigTestItem();
    EXPECT_THAT(enabledRows(), ElementsAre(1));
    test_option_table[3].id = 4;
}

TEST_F(SelfTestRun, SelectionLogsItsCountAtInfoAndTheTableAtDebug) {
    parseProduct();
    configure("1-9-77");
    setLogLevel("I");
    EXPECT_EQ(parseAndConfigTestItem(), 3);
    EXPECT_THAT(
        board.logLines(),
        ElementsAre(AllOf(Field(&board::LogLine::priority, ANDROID_LOG_INFO),
                          Field(&board::LogLine::tag, kServiceTag),
                          Field(&board::LogLine::text, "parseAndConfigTestItem: count = 3\n"))));
    board.clearLog();
    setLogLevel("D");
    parseAndConfigTestItem();
    std::vector<std::string> rows;
    rows.reserve(9);
    for (int i = 0; i < 9; ++i) {
        rows.push_back("parseAndConfigTestItem: test_option_table[" + std::to_string(i) +
                       "].enable = " + (i == 0 || i == 8 ? "1" : "0") + "\n");
    }
    EXPECT_EQ(board.log(ANDROID_LOG_DEBUG), rows);
}

TEST_F(SelfTestRun, RunLogsBothSizesAtDebug) {
    parseProduct();
    setLogLevel("D");
    runWith("1");
    const auto lines = board.log(ANDROID_LOG_DEBUG);
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[lines.size() - 2], "runSelfTestAndGetResult: data_size = 8\n");
    EXPECT_EQ(lines.back(), "runSelfTestAndGetResult: total_data_size = 18\n");
    EXPECT_EQ(board.logLines().back().tag, kServiceTag);
}

TEST_F(SelfTestRun, NullBufferIsRefusedBeforeTheFileIsTouched) {
    board.writeFile(kResultFile, "old");
    EXPECT_EQ(runSelfTestAndGetResult(nullptr, 1024), kRefused);
    EXPECT_EQ(resultFile(), "old");
    EXPECT_THAT(board.logLines(),
                ElementsAre(AllOf(Field(&board::LogLine::priority, ANDROID_LOG_ERROR),
                                  Field(&board::LogLine::tag, kServiceTag),
                                  Field(&board::LogLine::text,
                                        "runSelfTestAndGetResult: invalid NULL pointer\n"))));
}

TEST_F(SelfTestRun, EveryRunStartsAFileOfItsOwn) {
    board.writeFile(kResultFile, "old");
    runWith("1");
    runWith("1");
    EXPECT_EQ(resultFile(), "RTC:OK\r\n\n");
}

TEST_F(SelfTestRun, SizeSaysOnlyHowManyBytesAreZeroed) {
    runWith("1");
    record.assign(1024, 0xEE);
    EXPECT_EQ(runSelfTestAndGetResult(record.data(), 4), 18U);
    EXPECT_EQ(header(), headerOf(8, 0, 1));
    EXPECT_EQ(text(18), "RTC:OK\r\n");
    EXPECT_EQ(record[18], 0xEE);
}

TEST_F(SelfTestRun, LinesAreCutAt63BytesAndTheTextAt511) {
    const std::string longName(80, 'n');
    const char* names[9];
    for (int i = 0; i < 9; ++i) {
        names[i] = std::exchange(test_option_table[i].name, longName.c_str());
    }
    EXPECT_EQ(runWith("1-2-3-4-5-6-7-8-9"), 521U);
    for (int i = 0; i < 9; ++i) test_option_table[i].name = names[i];
    EXPECT_EQ(text(521), std::string(511, 'n'));
    EXPECT_EQ(record[6] | record[7] << 8, 513);
    EXPECT_EQ(resultFile().find('\n'), 63U);
}

class UnusableCard : public SelfTestFixture, public testing::WithParamInterface<SdCard> {};
std::string cardName(const testing::TestParamInfo<SdCard>& info) {
    static constexpr const char* kNames[] = {"present", "missing", "full", "readOnly"};
    return kNames[static_cast<size_t>(info.param)];
}
INSTANTIATE_TEST_SUITE_P(Each, UnusableCard,
                         testing::Values(SdCard::kMissing, SdCard::kFull, SdCard::kReadOnly),
                         cardName);

TEST_P(UnusableCard, EndsTheRunAtItsFirstItem) {
    parseProduct();
    board.probes().setSdCard(GetParam());
    EXPECT_EQ(runWith("1-5"), kRefused);
    EXPECT_THAT(
        board.logLines(),
        ElementsAre(AllOf(Field(&board::LogLine::priority, ANDROID_LOG_ERROR),
                          Field(&board::LogLine::tag, kServiceTag),
                          Field(&board::LogLine::text, "writeToFile Failed to open file\n"))));
    EXPECT_EQ(printed,
              "runSelfTestAndGetResult select_test_items = 2, num_test_options = 9\n"
              "runSelfTestAndGetResult Running testFunc[0]: RTC\n"
              "runSelfTestAndGetResult writeToFile failed\n");
    EXPECT_THAT(record, Each(0xEE));
    EXPECT_FALSE(hasResultFile());
}

TEST_F(SelfTestRun, CardThatFailsLaterKeepsTheLinesOfEarlierItems) {
    parseProduct();
    board.faults().add(
        {.call = board::Call::kFopen, .path = kResultFile, .error = EIO, .after = 1});
    EXPECT_EQ(runWith("1-5"), kRefused);
    EXPECT_EQ(resultFile(), "RTC:OK\r\n\n");
}

TEST_F(SelfTestRun, FileThatCannotBeRemovedIsAppendedTo) {
    board.writeFile(kResultFile, "old\n");
    board.faults().add({.call = board::Call::kRemove, .path = kResultFile, .error = EACCES});
    EXPECT_EQ(runWith("1"), 18U);
    EXPECT_EQ(resultFile(), "old\nRTC:OK\r\n\n");
}

namespace {

// Runs in a new process, so that the table is as the loader left it.
int runFresh(const char* items) {
    board::Board board;
    for (const test_option_t& row : test_option_table) {
        if (row.enable != 0) return 2;
    }
    if (parseConfigInfo() != 0) return 3;
    strcpy(config_info->self_test_items, items);
    Bytes record(1024);
    const unsigned length = runSelfTestAndGetResult(record.data(), 1024);
    record.resize(10);
    return length == 10 && record == headerOf(0, 0, 0xFF) ? 0 : 4;
}

}  // namespace

TEST(SelfTestFreshDeathTest, MissingSettingInAFreshProcessRunsNothing) {
    dieInAFreshProcess();
    EXPECT_EXIT(exit(runFresh("UNDEF")), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(exit(runFresh("")), testing::ExitedWithCode(0), "");
}

}  // namespace quil::tests
