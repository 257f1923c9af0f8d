// quilctl self-test and power.
#include "selftest/self_test.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/quilctl/test_run.h"

namespace quil::tests {

namespace fs = std::filesystem;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;

class QuilctlSelfTest : public QuilctlRun {
  protected:
    QuilctlSelfTest() {
        for (test_option_t& row : test_option_table) row.enable = 0;
    }
};

TEST_F(QuilctlSelfTest, PrintsTheNineItemsAndTheRecord) {
    const Said said = quilctl({"self-test"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_EQ(said.out,
              "item       enabled  verdict  probe\n"
              "RTC        yes      OK       rtc healthy, answered 0\n"
              "ES8316     yes      OK       es8316.0 healthy, answered 0\n"
              "WIFI AP    yes      OK       wifi-ap healthy, answered 0\n"
              "WIFI STA   no       -        no probe\n"
              "IDT6965    yes      OK       idt6965 healthy, answered 0\n"
              "Test LORA  no       -        no probe\n"
              "Test GMAC  no       -        no probe\n"
              "Test TCP   no       -        no probe\n"
              "Test UDP   no       -        no probe\n"
              "record: F4 FF FF FF 00 00 2D 00 00 04 52 54 43 3A 4F 4B 0D 0A 45 53 38 33 31 36 3A "
              "4F 4B 0D 0A 57 49 46 49 20 41 50 3A 4F 4B 0D 0A 49 44 54 36 39 36 35 3A 4F 4B 0D "
              "0A\n");
    EXPECT_THAT(said.err, IsEmpty());
}

TEST_F(QuilctlSelfTest, BrokenPartsChangeTheirVerdictsAndTheExitCode) {
    const Said said = quilctl({"self-test", "--break", "es8316,wifi-ap"});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, HasSubstr("ES8316     yes      Error    es8316.0 faulty, answered -5\n"));
    EXPECT_THAT(said.out, HasSubstr("WIFI AP    yes      Error    wifi-ap faulty, answered -5\n"));
    EXPECT_THAT(said.out, HasSubstr("RTC        yes      OK "));
    EXPECT_THAT(said.err, HasSubstr("checkWifiApState: test failed"));
}

TEST_F(QuilctlSelfTest, OneCodecAloneMayBeBroken) {
    const Said said = quilctl({"--product", "Kestrel", "self-test", "--break", "es8316.1"});
    EXPECT_EQ(said.code, tools::kUsage);  // Kestrel does not test its codecs
    EXPECT_EQ(quilctl({"self-test", "--break", "es8316.0"}).code, tools::kFailed);
}

TEST_F(QuilctlSelfTest, BrokenPartThatNoItemProbesIsRefusedWithThoseThatAreProbed) {
    const Said said = quilctl({"self-test", "--break", "es8316.9"});
    EXPECT_EQ(said.code, tools::kUsage);
    EXPECT_THAT(said.err,
                HasSubstr("quilctl: --break es8316.9: no item that runs on this board uses it; "
                          "they use es8316.0, idt6965, rtc, wifi-ap, sdcard\n"));
}

TEST_F(QuilctlSelfTest, MisspelledLineOfTheBoardsPartsIsNamedWithTheKnownWords) {
    const std::string board = newBoard();
    const auto saidOf = [&](const char* parts) {
        board::writeWholeFile(board + "/parts", parts);
        return quilctl({"--board", board, "self-test"});
    };
    EXPECT_EQ(saidOf("rtc = healthy\nrtc = borken\n").err,
              "quilctl: " + board +
                  "/parts:2: a part is one of healthy, faulty, absent "
                  "(quilctl board repair " +
                  board + ")\n");
    EXPECT_THAT(saidOf("toaster = faulty\n").err, HasSubstr("no such part; there are rtc, "));
    EXPECT_THAT(saidOf("sdcard = faulty\n").err, HasSubstr("the card is one of present, missing"));
    EXPECT_EQ(saidOf("rtc faulty\n").code, tools::kNoBoard);
}

TEST_F(QuilctlSelfTest, UnknownPartIsAUsageError) {
    EXPECT_EQ(quilctl({"self-test", "--break", "toaster"}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"self-test", "--break", "rtc,es8316.x"}).code, tools::kUsage);
}

TEST_F(QuilctlSelfTest, WithoutAnSdCardThereIsNoAnswer) {
    const Said said = quilctl({"self-test", "--break", "sdcard"});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, IsEmpty());
    EXPECT_THAT(said.err,
                HasSubstr("quilctl: self-test: no answer: the SD card is missing: writeToFile "
                          "Failed to open file\nquilctl: remedy: the result goes by /sdcard"));
}

TEST_F(QuilctlSelfTest, ResultFileLiesOnTheBoardsSdCardAndNothingStaysBroken) {
    const std::string board = newBoard();
    EXPECT_EQ(quilctl({"--board", board, "self-test", "--break", "rtc"}).code, tools::kFailed);
    EXPECT_TRUE(fs::exists(board + "/rootfs/sdcard/self_test_results.txt"));
    EXPECT_EQ(quilctl({"--board", board, "self-test"}).code, tools::kOk);
}

TEST_F(QuilctlSelfTest, PrintsJsonWhenAsked) {
    const auto json = resultOf(quilctl({"--json", "self-test", "--break", "rtc"}));
    EXPECT_EQ(json["passed"], false);
    EXPECT_EQ(json["items"].size(), 9U);
    EXPECT_EQ(json["items"][0]["verdict"], "Error");
    EXPECT_EQ(json["record"][0], 0xF4);
}

TEST_F(QuilctlSelfTest, PowerSendsTheTwoCommands) {
    const Said low = quilctl({"--log-level", "D", "power", "low"});
    EXPECT_EQ(low.code, tools::kOk);
    EXPECT_EQ(low.out, "0xFFFFFFF0 sent, empty answer\n");
    EXPECT_THAT(low.err, HasSubstr(": lowPowerMode\n"));
    const Said normal = quilctl({"--log-level", "D", "power", "normal"});
    EXPECT_EQ(normal.code, tools::kOk);
    EXPECT_EQ(normal.out, "0xFFFFFFF1 sent, empty answer\n");
    EXPECT_THAT(normal.err, HasSubstr(": normalPowerMode\n"));
    EXPECT_EQ(quilctl({"power"}).code, tools::kUsage);
    EXPECT_EQ(quilctl({"power", "off"}).code, tools::kUsage);
}

TEST_F(QuilctlSelfTest, DemoHasASelfTestWithABrokenPart) {
    EXPECT_THAT(quilctl({"demo"}).out, ContainsRegex("ok +self-test, RTC broken.*RTC:Error"));
}

}  // namespace quil::tests
