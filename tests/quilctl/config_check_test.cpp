// quilctl config check: what it knows of products, parts and files, and that a boot does what a
// finding says.
#include <gmock/gmock.h>

#include <fstream>

#include "board/fpga/fpga_image.h"
#include "board/mcu/mcu_image.h"
#include "tests/quilctl/test_run.h"

namespace quil::tests {

using board::McuKind;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class QuilctlConfigCheck : public QuilctlRun {
  protected:
    // Replaces the value of a key in the board's product file.
    static void setValue(const std::string& board, const std::string& key,
                         const std::string& value) {
        const std::string file = board + "/rootfs/vendor/etc/product.ini";
        std::string text = *board::readWholeFile(file);
        const size_t at = text.find("\n" + key + " = ") + 1;
        text.replace(at, text.find('\n', at) - at, key + " = " + value);
        board::writeWholeFile(file, text);
    }

    // A board with one wrong value, and the only finding about its product file.
    nlohmann::json findingFor(const std::string& key, const std::string& value,
                              const std::string& product = "Heron") {
        std::filesystem::remove_all(directory / product);
        mBoard = newBoard(product);
        setValue(mBoard, key, value);
        const auto result = resultOf(quilctl({"--board", mBoard, "--json", "config", "check"}));
        EXPECT_EQ(result["problems"].size(), 1U) << result["problems"];
        return result["problems"][0];
    }

    Said boot(const std::vector<std::string>& more = {}) const {
        std::vector<std::string> words = {"--board", mBoard, "boot"};
        words.insert(words.end(), more.begin(), more.end());
        return quilctl(words);
    }
    Said selfTest() const { return quilctl({"--board", mBoard, "self-test"}); }

    std::string mBoard;
};

TEST_F(QuilctlConfigCheck, FileOfEachNewProductIsCleanAndIsTheDefault) {
    for (const std::string product : {"Heron", "Kestrel", "Wren_t507"}) {
        const Said said = quilctl({"--product", product, "config", "check"});
        EXPECT_EQ(said.code, tools::kOk);
        EXPECT_EQ(said.out, "product.ini of a new " + product + ": good\n");
        EXPECT_EQ(quilctl({"--board", newBoard(product), "config", "check"}).code, tools::kOk);
    }
    EXPECT_EQ(quilctl({"config", "check"}).out, "product.ini of a new Heron: good\n");
}

TEST_F(QuilctlConfigCheck, FindingHasLineKeyWhatWouldBeRightAndWhatHappensAtBoot) {
    const std::string board = newBoard();
    setValue(board, "product", "heron");
    const std::string file = board + "/rootfs/vendor/etc/product.ini";
    const Said said = quilctl({"--board", board, "config", "check"});
    EXPECT_EQ(said.code, tools::kBadData);
    EXPECT_EQ(said.out,
              file +
                  ":3: [product] product: there is no product 'heron'\n"
                  "    right:    did you mean Heron?\n"
                  "    at boot:  no load sequence belongs to it: the FPGA is not loaded\n");
}

TEST_F(QuilctlConfigCheck, ProductThatDoesNotExistHasNoLoadSequenceAtBoot) {
    EXPECT_EQ(findingFor("product", "heron")["at_boot"],
              "no load sequence belongs to it: the FPGA is not loaded");
    const Said said = boot();
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, HasSubstr("cause: no load sequence belongs to this product"));
}

TEST_F(QuilctlConfigCheck, CommentBehindADeviceKeepsTheServiceFromComingUp) {
    const auto finding = findingFor("mcu_uart_path", "/dev/ttyS3 # the MCU");
    EXPECT_EQ(finding["text"], "'# the MCU' is a part of the value");
    EXPECT_EQ(finding["right"], "a comment behind a value begins with ;");
    EXPECT_EQ(finding["at_boot"], "the service does not come up: it has no link to the MCU");
    EXPECT_EQ(boot().code, tools::kNoBoard);
    EXPECT_EQ(findingFor("mcu_type", "1 # any")["warning"], true);
}

TEST_F(QuilctlConfigCheck, VersionThatTheMcuCannotReportIsProgrammedAtEachBoot) {
    const auto finding = findingFor("mcu_fw_version", "V1.0.0-release-candidat");
    EXPECT_EQ(finding["text"], "23 characters, the MCU reports 15");
    EXPECT_THAT(std::string(finding["at_boot"]), HasSubstr("each boot programs the MCU again"));
    for (int i = 0; i < 2; ++i) EXPECT_THAT(boot().out, HasSubstr("ok (programmed)"));
}

TEST_F(QuilctlConfigCheck, VersionOfAnotherImageIsProgrammedAtEachBoot) {
    const auto finding = findingFor("mcu_fw_version", "V1.0.1");
    EXPECT_EQ(finding["text"], "'V1.0.1', and the image is V1.0.0");
    EXPECT_EQ(finding["right"], "V1.0.0");
    for (int i = 0; i < 2; ++i) EXPECT_THAT(boot().out, HasSubstr("ok (programmed)"));
}

TEST_F(QuilctlConfigCheck, RatesThatTheLinkCannotUseLeaveTheMcuWithoutAnAnswer) {
    EXPECT_THAT(std::string(findingFor("mcu_baud_rate", "38400")["at_boot"]),
                HasSubstr("each boot programs it again"));
    for (int i = 0; i < 2; ++i) EXPECT_THAT(boot().out, HasSubstr("ok (programmed)"));
    EXPECT_THAT(std::string(findingFor("mcu_baud_rate", "300")["text"]), HasSubstr("too slow"));
    for (int i = 0; i < 2; ++i) EXPECT_THAT(boot().out, HasSubstr("ok (programmed)"));
}

TEST_F(QuilctlConfigCheck, ItemsThatTestNothingAreNamed) {
    EXPECT_EQ(findingFor("self_test_items", "a,b")["text"], "'a,b' is no item");
    EXPECT_THAT(selfTest().out, Not(HasSubstr("yes")));
    EXPECT_EQ(selfTest().code, tools::kOk) << "it says that it passed";
    EXPECT_THAT(std::string(findingFor("self_test_items", "1,2,3")["at_boot"]),
                HasSubstr("item 1 runs, and nothing behind it"));
    EXPECT_THAT(selfTest().out, AllOf(HasSubstr("RTC        yes"), HasSubstr("ES8316     no")));
    EXPECT_THAT(std::string(findingFor("self_test_items", "---")["at_boot"]),
                HasSubstr("refuses to run"));
    EXPECT_EQ(selfTest().code, tools::kFailed);
    EXPECT_EQ(findingFor("self_test_items", "1-12")["text"], "'12' is no item");
    EXPECT_EQ(findingFor("self_test_items", "2-2")["warning"], true);
}

TEST_F(QuilctlConfigCheck, BoardWithoutCodecsFailsItsCodecItem) {
    EXPECT_THAT(std::string(findingFor("audio_num", "0")["at_boot"]), HasSubstr("is in error"));
    EXPECT_EQ(selfTest().code, tools::kFailed);
}

TEST_F(QuilctlConfigCheck, LineOfTwoSignalsIsNamedWithBoth) {
    const auto finding = findingFor("fpga_control_gpio", "442");
    EXPECT_EQ(finding["key"], "[fpga] fpga_config_gpio");
    EXPECT_EQ(finding["text"], "442 is [fpga] fpga_control_gpio as well");
    EXPECT_EQ(boot().code, tools::kOk) << "no step notices it";
    EXPECT_EQ(findingFor("mcu_wdt_pulse", "443")["text"], "443 is [fpga] fpga_done_gpio as well");
}

TEST_F(QuilctlConfigCheck, LineThatIsNotSetFailsAnUpdateOrIsWaitedForInVain) {
    EXPECT_THAT(std::string(findingFor("fpga_control_gpio", "0")["at_boot"]),
                HasSubstr("a Heron's update of the FPGA fails"));
    EXPECT_THAT(boot({"--update-fpga"}).out, HasSubstr("fpgaFlashFormat: gpio 999"));
    EXPECT_THAT(std::string(findingFor("fpga_done_gpio", "0")["at_boot"]),
                HasSubstr("polls it for 10 s, and goes on without DONE"));
    EXPECT_THAT(boot().out, HasSubstr("FPGA configured           0.500 s     10.000 s  ok"));
}

TEST_F(QuilctlConfigCheck, ChipThatDoesNotExistIsNamedWithTheNearest) {
    const auto finding = findingFor("mcu_serial", "GD32F303");
    EXPECT_EQ(finding["right"], "did you mean gd32f303?");
    EXPECT_THAT(std::string(finding["at_boot"]), HasSubstr("programs nothing and counts as done"));
    setValue(mBoard, "mcu_fw_version", "V9");
    EXPECT_THAT(boot().out, HasSubstr("ok (programmed)"));
    EXPECT_THAT(quilctl({"--board", mBoard, "mcu", "version"}).out, HasSubstr("running   V1.0.0"));
    EXPECT_THAT(std::string(findingFor("mcu_serial", "gd32f999")["at_boot"]),
                HasSubstr("runs the STM32 and GD32 session"));
}

TEST_F(QuilctlConfigCheck, ImageThatIsNotThereFailsTheUpdateThatIsDue) {
    EXPECT_EQ(findingFor("mcu_fw_path", "/none")["text"], "the board has no file /none");
    EXPECT_EQ(boot().code, tools::kOk) << "no update is due";
    setValue(mBoard, "mcu_fw_version", "V9");
    EXPECT_THAT(
        boot().out,
        HasSubstr("cause: the update did not get through: mcuFwUpdate: doMcuUpdate failed"));
}

TEST_F(QuilctlConfigCheck, ImageOfAnotherPartOrOfNoPartDoesNotStart) {
    mBoard = newBoard();
    const std::string image = mBoard + "/rootfs/vendor/firmware/mcu_Heron.bin";
    board::writeWholeFile(image, std::string(4096, 'x'));
    const auto problem =
        resultOf(quilctl({"--board", mBoard, "--json", "config", "check"}))["problems"][0];
    EXPECT_EQ(problem["text"], "no image for a gd32f303: the stack pointer lies outside the RAM");
    EXPECT_EQ(problem["at_boot"], "after an update that is due the MCU does not start");
    setValue(mBoard, "mcu_fw_version", "V9");
    boot();
    EXPECT_THAT(quilctl({"--board", mBoard, "mcu", "version"}).out, HasSubstr("no answer"));
}

TEST_F(QuilctlConfigCheck, ImageLargerThanTheFlashIsNamedWithBothSizes) {
    mBoard = newBoard("Kestrel");
    board::writeWholeFile(mBoard + "/rootfs/vendor/firmware/mcu_Kestrel.bin",
                          std::string(200000, 'x'));
    EXPECT_THAT(quilctl({"--board", mBoard, "config", "check"}).out,
                HasSubstr("200000 bytes, a stm32h750 has 131072"));
}

TEST_F(QuilctlConfigCheck, ImageThatTheUpdateDoesNotProgramAsAWholeIsNamedWithWhatItDoes) {
    const std::tuple<const char*, McuKind, size_t, const char*, const char*, const char*> images[] =
        {{"Wren_t507", McuKind::kN32G45x, 1024, "the image's 1024 bytes are a multiple of 128",
          "fewer than 32640 bytes, and no multiple of 128",
          "in an update that is due the flow leaves out the last 128"},
         {"Heron", McuKind::kGd32F303, 3000, "the image ends 952 bytes into a page",
          "whole pages of 2048 bytes, at most 126",
          "in an update that is due the flow does not erase that page: what it held before stays"}};
    for (const auto& [product, part, size, text, right, atBoot] : images) {
        mBoard = newBoard(product);
        const std::string version = product == std::string("Heron") ? "V1.0.0" : "V2.0.1";
        board::writeWholeFile(mBoard + "/rootfs/vendor/firmware/mcu_" + product + ".bin",
                              board::makeMcuImage(part, version, size));
        const auto problems =
            resultOf(quilctl({"--board", mBoard, "--json", "config", "check"}))["problems"];
        ASSERT_EQ(problems.size(), 1U) << problems;
        EXPECT_EQ(problems[0]["key"], "[mcu] mcu_fw_path");
        EXPECT_EQ(problems[0]["text"], text);
        EXPECT_EQ(problems[0]["right"], right);
        EXPECT_EQ(problems[0]["at_boot"], atBoot);
        EXPECT_EQ(
            quilctl({"--board", mBoard, "mcu", "update", "--as-is", "--installed", "V0.9.0"}).code,
            tools::kFailed);
    }
}

TEST_F(QuilctlConfigCheck, FpgaImageThatIsNoneFailsAKestrelAndEmptiesAHeron) {
    EXPECT_EQ(findingFor("fpga_fw_path", "/none", "Kestrel")["at_boot"], "the FPGA is not loaded");
    EXPECT_THAT(boot().out, HasSubstr("FAILED"));
    EXPECT_THAT(std::string(findingFor("fpga_fw_path", "/none")["at_boot"]),
                HasSubstr("a Heron's has erased the flash by then"));
    EXPECT_EQ(boot().code, tools::kOk);
    EXPECT_EQ(boot({"--update-fpga", "--as-is"}).code, tools::kFailed);
    EXPECT_THAT(*board::readWholeFile(mBoard + "/mtd0"), IsEmpty());
}

TEST_F(QuilctlConfigCheck, DeviceOrPartitionThatTheBoardLacksCountsForTheProductThatReadsIt) {
    EXPECT_EQ(findingFor("fpga_drv_path", "/dev/x", "Kestrel")["warning"], false);
    EXPECT_THAT(boot().out, HasSubstr("FAILED"));
    EXPECT_EQ(findingFor("hex_parameter", "none", "Kestrel")["text"],
              "the board has no partition 'none'");
    EXPECT_THAT(boot().out, HasSubstr("FAILED"));
    EXPECT_EQ(findingFor("fpga_drv_path", "/dev/x")["warning"], true);
    EXPECT_EQ(boot().code, tools::kOk);
    EXPECT_THAT(std::string(findingFor("mcu_uart_path", "/dev/fpga_spi")["at_boot"]),
                HasSubstr("the load of the FPGA fails"));
    EXPECT_EQ(boot().code, tools::kFailed);
}

TEST_F(QuilctlConfigCheck, EachBrokenLineIsNamedAndAMisspelledKeyWithTheNearest) {
    const std::string file = path("p.ini");
    board::writeWholeFile(file, "[product\nwords\n[mcu]\nmcu_tpye = 1\nmore words\n");
    const Said said = quilctl({"config", "check", file});
    EXPECT_THAT(said.out, HasSubstr(file + ":1: neither a [section] nor key = value\n"));
    EXPECT_THAT(said.out, HasSubstr(file + ":2: neither a [section] nor key = value\n"));
    EXPECT_THAT(said.out, HasSubstr(file + ":5: neither a [section] nor key = value\n"));
    EXPECT_THAT(said.out, HasSubstr(":4: warning: [mcu] mcu_tpye: nobody reads this key\n"
                                    "    right:    did you mean mcu_type?\n"));
    EXPECT_THAT(said.out, HasSubstr("the files that it names were not looked at"));
}

TEST_F(QuilctlConfigCheck, FileInABoardIsCheckedWithThatBoard) {
    const std::string file = newBoard() + "/rootfs/vendor/etc/product.ini";
    const auto result = resultOf(quilctl({"--json", "config", "check", file}));
    EXPECT_EQ(result["files_checked"], true);
    EXPECT_THAT(result["problems"], IsEmpty());
}

}  // namespace quil::tests
