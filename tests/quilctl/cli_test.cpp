#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "testing/files.h"
#include "tests/quilctl/test_run.h"
#include "tools/quilctl/files/input_file.h"
#include "tools/quilctl/files/product_file.h"

namespace quil::tests {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using tools::checkProductFile;

class QuilctlTest : public QuilctlRun {};

TEST(Quilctl, WithoutACommandItIsAUsageError) {
    EXPECT_EQ(quilctl({}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"fly"}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"get"}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"set", "1"}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"--product", "Robin", "get", "1"}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"--trace", "x.png", "get", "1"}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"--log-level", "X", "get", "1"}).code, tools::kUsage);
}

TEST(Quilctl, GetPrintsTheAnswerAsHexAndNothingElse) {
    const Said said = quilctl({"get", "1"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_EQ(said.out, "56 31 2E 30 2E 30\n");
}

TEST(Quilctl, GetPrintsJsonWhenAsked) {
    const auto json = resultOf(quilctl({"get", "0x1", "--json"}));
    EXPECT_EQ(json["answered"], true);
    EXPECT_EQ(json["answer"].size(), 6u);
}

TEST(Quilctl, RequestThatNobodyAnswersFails) {
    const Said said = quilctl({"get", "0xF5000002"});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, IsEmpty());
    EXPECT_THAT(said.err, HasSubstr("no answer: nobody answers it"));
}

TEST(Quilctl, UnknownOptionIsAnsweredWithEachKnownOneOnce) {
    const std::string said = quilctl({"mcu", "flash", "--zzz", "image.bin"}).err;
    EXPECT_THAT(said, HasSubstr("known: --help, --chip, "));
    EXPECT_EQ(said.find("--help,"), said.rfind("--help,"));
}

TEST(Quilctl, InputWithoutAnEndIsRefused) {
    std::istringstream in("0123456789");
    EXPECT_EQ(tools::readInput(in, 10), "0123456789");
    in.clear();
    in.seekg(0);
    EXPECT_THROW(tools::readInput(in, 9), tools::Failure);
    EXPECT_THROW(tools::readInput("/dev/zero", 1 << 20), tools::Failure);
}

TEST(Quilctl, BodyLongerThanItsLengthFieldIsAUsageError) {
    EXPECT_EQ(quilctl({"set", "1", std::string(size_t{2} * 65536, '0')}).code, tools::kUsage);
}

TEST(Quilctl, CallbacksPrintsWhatArrivedAtEach) {
    const Said said = quilctl({"callbacks", "--count", "2", "--data", "CAFE"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_EQ(said.out, "hwInvoke returned 2\ncallback 1: CA FE\ncallback 2: CA FE\n");
}

TEST(Quilctl, LogLevelShowsTheLibrarysDebugLines) {
    EXPECT_THAT(quilctl({"--log-level", "D", "get", "1"}).err,
                HasSubstr("parse business type = 1"));
    EXPECT_THAT(quilctl({"get", "1"}).err, IsEmpty());
}

TEST(Quilctl, DemoMeetsEveryExpectation) {
    const Said said = quilctl({"demo"});
    EXPECT_EQ(said.code, tools::kOk) << said.out << said.err;
    EXPECT_THAT(said.out, HasSubstr("8192 bytes programmed  V0.9.0 -> V1.0.0\n"));
    EXPECT_THAT(said.out, HasSubstr(" set [0A 0B] -> [00] "));
    EXPECT_THAT(said.out, EndsWith("All as expected.\n"));
    std::istringstream lines(said.out);
    for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 79u) << line;
}

TEST_F(QuilctlTest, ValueSetOnABoardDirectoryIsThereInTheNextRun) {
    ASSERT_EQ(quilctl({"board", "new", path("b"), "--product", "Kestrel"}).code, tools::kOk);
    EXPECT_EQ(quilctl({"--board", path("b"), "set", "0x102", "0A", "0B"}).out, "00\n");
    EXPECT_EQ(quilctl({"--board", path("b"), "get", "258"}).out, "0A 0B\n");
    const Said shown = quilctl({"board", "show", path("b")});
    EXPECT_EQ(shown.code, tools::kOk);
    EXPECT_THAT(shown.out, HasSubstr("  /vendor/etc/product.ini\n"));
}

TEST_F(QuilctlTest, BoardThatIsNotThereIsToldApartFromFailure) {
    EXPECT_EQ(quilctl({"--board", path("none"), "get", "1"}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"board", "show", path("none")}).code, tools::kUsage);
}

TEST_F(QuilctlTest, TracesAreWrittenInTheFormatOfTheirNamesOrAsSaid) {
    const Said said = quilctl({"--trace", path("t.vcd"), "--trace", path("t.json"), "--trace",
                               "text:" + path("log"), "get", "1"});
    EXPECT_EQ(said.code, tools::kOk) << said.err;
    EXPECT_EQ(said.out, "56 31 2E 30 2E 30\n");
    EXPECT_THAT(contentOf(path("t.vcd")), HasSubstr("$timescale 1ns"));
    EXPECT_TRUE(nlohmann::json::accept(contentOf(path("t.json"))));
    EXPECT_THAT(contentOf(path("log")), HasSubstr("power"));
}

TEST_F(QuilctlTest, TraceOnStandardOutputHasItForItself) {
    const std::string answer = "56 31 2E 30 2E 30\n";
    const Said vcd = quilctl({"--trace", "vcd:-", "get", "1"});
    EXPECT_THAT(vcd.out, testing::StartsWith("$comment"));
    EXPECT_EQ(vcd.err, answer);
    EXPECT_TRUE(nlohmann::json::accept(quilctl({"--trace", "json:-", "get", "1"}).out));
    EXPECT_THAT(quilctl({"--trace", "-", "get", "1"}).out,
                testing::StartsWith("    0.000000 power     board: on"));
    EXPECT_EQ(quilctl({"--trace", "vcd:", "get", "1"}).code, tools::kUsage);
}

TEST_F(QuilctlTest, WhatIsWrittenBesideTheResultNeedsAFile) {
    const std::string image = path("image"), folder = path("");
    std::ofstream(image) << "content";
    const std::vector<std::vector<std::string>> commands = {
        {"boot", "--report", "-"},
        {"mcu", "read", "--size", "4", "-"},
        {"mcu", "task", "read-memory", "--save", "-"},
        {"screen", "show", image, "--svg", "-"},
        {"screen", "show", image, "--png", "-"},
        {"screen", "build", folder, "-"}};
    for (const auto& command : commands) {
        const Said said = quilctl(command);
        EXPECT_EQ(said.code, tools::kUsage) << command[0] << " " << command[1];
        EXPECT_THAT(said.err, HasSubstr("a file is needed, not standard output"));
    }
}

TEST_F(QuilctlTest, TwoOutputsInOnePlaceAreRefusedBeforeTheBoardIsPowered) {
    using Words = std::vector<std::string>;
    for (const Words& words :
         {Words{"--trace", "vcd:-", "--trace", "json:-", "get", "1"},
          Words{"--trace", "-", "--trace", "-", "get", "1"},
          Words{"--trace", path("t.vcd"), "--trace", "json:" + path("./t.vcd"), "get", "1"},
          Words{"--trace", path("t.txt"), "boot", "--report", path("t.txt")}}) {
        const Said said = quilctl(words);
        EXPECT_EQ(said.code, tools::kUsage) << said.err;
        EXPECT_EQ(said.out, "");
        EXPECT_THAT(said.err, HasSubstr("is asked for twice"));
    }
    EXPECT_FALSE(std::filesystem::exists(path("t.vcd")));
}

TEST(QuilctlConfig, ShowPrintsWhatTheLibraryRead) {
    const Said said = quilctl({"config", "show"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_THAT(said.out, HasSubstr("mcu       mcu_uart_path         /dev/ttyS3\n"));
    const auto json = resultOf(quilctl({"config", "show", "--json"}));
    EXPECT_EQ(json["mcu"]["mcu_baud_rate"], 115200);
}

TEST_F(QuilctlTest, ProductFilesOfAllBoardsAreGood) {
    for (const char* product : {"Heron", "Kestrel", "Wren_t507"}) {
        ASSERT_EQ(quilctl({"board", "new", path(product), "--product", product}).code, tools::kOk);
        const Said said = quilctl({"--board", path(product), "config", "check"});
        EXPECT_EQ(said.code, tools::kOk) << said.out;
        EXPECT_THAT(said.out, EndsWith("product.ini: good\n"));
    }
}

TEST_F(QuilctlTest, CheckNamesFileLineAndKey) {
    std::ofstream(path("p.ini")) << "[mcu]\n; rate of the link\nmcu_baud_rate = 38400\n";
    const Said said = quilctl({"config", "check", path("p.ini")});
    EXPECT_EQ(said.code, tools::kBadData);
    EXPECT_THAT(said.out, HasSubstr(path("p.ini") + ":3: [mcu] mcu_baud_rate: 38400 is no rate"));
    EXPECT_THAT(said.out, HasSubstr(path("p.ini") + ": [product] product: missing\n"));
    EXPECT_THAT(said.out, Not(HasSubstr("good")));
}

TEST_F(QuilctlTest, CheckOfAFileThatIsNotThereIsAUsageError) {
    EXPECT_EQ(quilctl({"config", "check", path("none.ini")}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"config", "check", directory.string()}).code, tools::kUsage);
}

// The problem of one line that stands alone in its section; "" when it has none.
std::string problemOf(const std::string& section, const std::string& line) {
    const std::string file = std::string("[").append(section).append("]\n").append(line) + "\n";
    for (const auto& problem : checkProductFile(file)) {
        if (problem.line == 2) return (problem.isWarning ? "warning: " : "") + problem.text;
    }
    return "";
}

TEST(ProductFile, ValuesOutsideTheirRangeAreNamed) {
    EXPECT_EQ(problemOf("fpga", "fpga_done_gpio = 0"), "0 is no GPIO line: 1 or more");
    EXPECT_EQ(problemOf("mcu", "mcu_type = -3"), "-3 is negative");
    EXPECT_EQ(problemOf("mcu", "mcu_type = one"), "'one' is no 32-bit integer");
    EXPECT_EQ(problemOf("mcu", "mcu_type = 99999999999"), "'99999999999' is no 32-bit integer");
    EXPECT_EQ(problemOf("mcu_wdt", "mcu_wdt_pulse = 0"), "0 means that it is not set");
    EXPECT_EQ(problemOf("mcu", "mcu_uart_path = UNDEF"), "'UNDEF' is not set");
    EXPECT_EQ(problemOf("mcu", "mcu_fw_path = fw.bin"), "'fw.bin' is no absolute path");
    EXPECT_EQ(problemOf("mcu", "mcu_type = 0"), "");
}

TEST(ProductFile, TextThatDoesNotFitItsFieldIsNamedWithBothSizes) {
    EXPECT_EQ(problemOf("mcu", "mcu_serial = gd32f303-rev-12"), "");
    EXPECT_EQ(problemOf("mcu", "mcu_serial = 1234567890123456"),
              "16 characters, the field holds 15");
    EXPECT_THAT(problemOf("mcu", "mcu_fw_path = /" + std::string(10000, 'x')),
                HasSubstr("characters; only the first"));
}

TEST(ProductFile, UnknownDoubleAndBrokenLinesAreNamed) {
    EXPECT_EQ(problemOf("mcu", "mcu_tpye = 1"), "warning: nobody reads this key");
    EXPECT_EQ(problemOf("mcu", "just words"), "neither a [section] nor key = value");
    EXPECT_EQ(problemOf("mcu", std::string("mcu_serial = a\0b", 16)), "binary bytes");
    const auto problems = checkProductFile("[mcu]\nmcu_type = 1\nmcu_type = 2\n");
    ASSERT_FALSE(problems.empty());
    EXPECT_EQ(problems[0].line, 3);
    EXPECT_EQ(problems[0].text, "stands already in line 2");
}

TEST(ProductFile, EmptyFileMissesEveryKey) {
    EXPECT_EQ(checkProductFile("").size(), tools::productKeys().size());
}

}  // namespace
}  // namespace quil::tests
