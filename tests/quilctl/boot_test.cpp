// quilctl boot: a whole start-up by stages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "tests/quilctl/test_run.h"

namespace quil::tests {

namespace fs = std::filesystem;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Key;

class QuilctlBoot : public QuilctlRun {};

TEST_F(QuilctlBoot, StagesFollowFromTheConfigurationToTheService) {
    const Said said = quilctl({"boot"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_THAT(said.out, ContainsRegex("^stage +from +took  result\n"
                                        "configuration +0.000 s .* ok .Heron.\n"
                                        "clients are let in +0.000 s .* ok\n"
                                        "MCU firmware .* ok .up to date.\n"
                                        "FPGA configured .* ok\n"
                                        "FPGA memory .* 1.000 s  ok\n"
                                        "screen parameters .* ok\n"
                                        "network .* ok\n"
                                        "ready for requests .* ok\n$"));
    EXPECT_EQ(said.err, "");
}

TEST_F(QuilctlBoot, PendingFpgaImageIsWrittenFirst) {
    const std::string board = newBoard();
    const Said said = quilctl({"--board", board, "boot", "--update-fpga"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_THAT(said.out, ContainsRegex("FPGA flash erased .* 31.200 s  ok\n"
                                        "FPGA image written .* 1.179 s  ok\n"
                                        "FPGA configured .* 0.500 s  ok\n"));
    EXPECT_THAT(said.out, ContainsRegex("switch to UDP .* ok\nready for requests .* ok\n$"));
    EXPECT_THAT(quilctl({"--board", board, "fpga", "status"}).out, HasSubstr("V2.1.0"));
}

TEST_F(QuilctlBoot, ProgressOfTheFpgasFlashRisesToTheEndOfEachOperation) {
    const Said said = quilctl({"--progress", "json", "boot", "--update-fpga"});
    std::map<std::string, std::vector<int>> percents;
    std::istringstream lines(said.err);
    for (std::string line; std::getline(lines, line);) {
        const auto told = nlohmann::json::parse(line);
        if (told["event"] == "phase") percents[told["phase"]].push_back(told["percent"]);
    }
    EXPECT_THAT(percents, ElementsAre(Key("FPGA flash: erase"), Key("FPGA flash: program")));
    for (const auto& [operation, told] : percents) {
        EXPECT_GE(told.size(), 4U) << operation;
        EXPECT_TRUE(std::is_sorted(told.begin(), told.end())) << operation;
        EXPECT_EQ(told.back(), 100) << operation;
    }
}

TEST_F(QuilctlBoot, EraseOfTheFpgasFlashThatFailsIsNoProgress) {
    const Said said = quilctl({"--progress", "json", "boot", "--update-fpga", "--fault", "erase"});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.err, HasSubstr("FPGA flash erased"));
    EXPECT_THAT(said.err, testing::Not(HasSubstr("\"phase\"")));
}

TEST_F(QuilctlBoot, OtherProductsHaveTheirOwnStages) {
    EXPECT_THAT(quilctl({"--product", "Kestrel", "boot"}).out,
                ContainsRegex("FPGA loaded .* ok\nscreen parameters .* ok\nready"));
    EXPECT_THAT(quilctl({"--product", "Wren_t507", "boot", "--update-fpga"}).out,
                ContainsRegex("FPGA image written .* ok\nscreen parameters .* ok\nready"));
}

TEST_F(QuilctlBoot, McuLinkThatIsNotThereIsNamedWithTheReasonAndWhatFindsTheMistake) {
    const std::string board = newBoard();
    const std::string ini = board + "/rootfs/vendor/etc/product.ini";
    std::string content = board::readWholeFile(ini).value_or("");
    content.insert(content.find("/dev/ttyS3") + strlen("/dev/ttyS3"), " # the MCU");
    board::writeWholeFile(ini, content);
    const std::string why =
        "the MCU link '/dev/ttyS3 # the MCU' could not be opened: No such file or directory\n";
    const std::string remedy =
        "remedy: quilctl config check tells what is wrong with product.ini\n";
    const Said said = quilctl({"--board", board, "boot"});
    EXPECT_EQ(said.code, tools::kNoBoard);
    EXPECT_THAT(said.out,
                HasSubstr("start-up                  0.000 s      0.000 s  FAILED\n  cause: " +
                          why + "  " + remedy));
    EXPECT_EQ(quilctl({"--board", board, "get", "1"}).err,
              "quilctl: " + why + "quilctl: " + remedy);
}

TEST_F(QuilctlBoot, StageThatFailsIsTheExitCodeAndTheServiceComesUpAllTheSame) {
    const std::string board = newBoard();
    fs::remove(board + "/rootfs/vendor/bin/mtd_debug");
    const Said said = quilctl({"--board", board, "boot", "--update-fpga"});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, ContainsRegex("FPGA flash erased .* FAILED\n"
                                        "  cause: .*: fpgaFlashFormat: mtd_debug tool not exist\n"
                                        "  remedy: .*\nready for requests .* ok\n"));
}

// A fault by its name, on which product, and the stage that shows it.
struct BrokenBoot {
    const char* fault;
    const char* product;
    bool updates;
    int code;
    const char* stage;
};
void PrintTo(const BrokenBoot& row, std::ostream* out) { *out << row.fault; }

class QuilctlBootFault : public QuilctlBoot, public testing::WithParamInterface<BrokenBoot> {};

TEST_P(QuilctlBootFault, ShowsInItsStage) {
    std::vector<std::string> words = {"--product", GetParam().product, "boot", "--fault",
                                      GetParam().fault};
    if (GetParam().updates) words.emplace_back("--update-fpga");
    const Said said = quilctl(words);
    EXPECT_EQ(said.code, GetParam().code) << said.out;
    EXPECT_THAT(said.out, ContainsRegex(GetParam().stage));
    EXPECT_THAT(said.out, ContainsRegex("ready for requests .* ok\n$"));
    EXPECT_THAT(said.err, testing::Not(HasSubstr("nothing in this run")));
}

TEST_P(QuilctlBootFault, GivesEachStageThatFailedACauseAndARemedy) {
    std::vector<std::string> words = {"--json", "--product", GetParam().product,
                                      "boot",   "--fault",   GetParam().fault};
    if (GetParam().updates) words.emplace_back("--update-fpga");
    const auto json = nlohmann::json::parse(quilctl(words).out);
    bool allOk = true;
    for (const auto& stage : json["result"]["stages"]) {
        allOk = allOk && stage["ok"];
        EXPECT_NE(stage["ok"], stage.contains("cause")) << stage;
        EXPECT_NE(stage.value("cause", "-"), "") << stage;
        EXPECT_EQ(stage.contains("cause"), stage.contains("remedy")) << stage;
        EXPECT_NE(stage.value("remedy", "-"), "") << stage;
    }
    EXPECT_EQ(allOk, GetParam().code == tools::kOk);
    EXPECT_EQ(json.value("error", nlohmann::json::object()).contains("remedy"), !allOk);
}

INSTANTIATE_TEST_SUITE_P(
    Each, QuilctlBootFault,
    testing::Values(
        BrokenBoot{"erase", "Heron", true, 1,
                   "FPGA flash erased .* FAILED\n  cause: .*: fpgaFlashFormat: mtd_debug erase "
                   "exit status: 1\n"},
        BrokenBoot{"program", "Heron", true, 1,
                   "FPGA image written .* FAILED\n  cause: .*: fpgaFlashWrite: mtd_debug write "
                   "exit status: 1\n"},
        BrokenBoot{"page", "Heron", true, 1,
                   "FPGA configured .* 10.000 s  FAILED\n  cause: .*: wrong CRC\n"},
        BrokenBoot{
            "done", "Heron", false, 1,
            "FPGA configured .* 10.000 s  FAILED\n  cause: DONE did not rise within 10 s: .*\n"},
        BrokenBoot{"ddr", "Heron", false, 1,
                   "FPGA memory .* FAILED\n  cause: .*: fpgaCheckDDRAndRecovery: ddr_recovery "
                   "failed\n"},
        BrokenBoot{"ddr-late", "Heron", false, 0,
                   "FPGA memory .* ok, with a warning\n  warning: .* came good after a restart of "
                   "the FPGA: fpgaRecovery: invalid fpga_ddr_state = 0\n"},
        BrokenBoot{"spi", "Heron", false, 1,
                   "FPGA memory .* FAILED\n"
                   "  cause: the state of the FPGA.s DDR was not read: readFpgaDdrState: open .*\n"
                   "  remedy: .*/dev/fpga_spi.*\n"
                   "screen parameters .* FAILED\n"
                   "  cause: not all screen parameters were sent: spi_send_data: open .*\n"
                   "  remedy: .*/dev/fpga_spi.*\n"
                   "network .* FAILED"},
        BrokenBoot{
            "screen", "Heron", false, 1,
            "screen parameters .* FAILED\n  cause: .*: fpgaLoadScreenParamsBySpi: failed to read"},
        BrokenBoot{"clock", "Heron", false, 1,
                   "network .* FAILED\n  cause: .*: fpgaPhySgmiiConfig: readFpgaSgmiiClockState "
                   "failed\n"},
        BrokenBoot{"negotiation", "Heron", false, 0, "network .* ok\n"},
        BrokenBoot{
            "link", "Heron", false, 1,
            "network .* FAILED\n  cause: .*: fpgaPhySgmiiConfig: readRtl8211fsPhyLink failed"},
        BrokenBoot{"link-late", "Heron", false, 0,
                   "network .* ok, with a warning\n  warning: the link came only after a further "
                   "reset of the PHY: fpgaPhySgmiiConfig: readRtl8211fsPhyLink failed\n"},
        BrokenBoot{"phy", "Heron", false, 1, "network .* FAILED"},
        BrokenBoot{"udp", "Heron", true, 1, "switch to UDP .* FAILED"},
        BrokenBoot{"driver", "Kestrel", false, 1,
                   "FPGA loaded .* FAILED\n  cause: .*\n  remedy: .*\nready"},
        BrokenBoot{"screen-udp", "Kestrel", false, 1,
                   "screen parameters .* FAILED\n  cause: .*\n  remedy: .*\nready"},
        BrokenBoot{"update", "Wren_t507", true, 1,
                   "FPGA image written .* FAILED\n  cause: .*\n  remedy: .*\nready"},
        BrokenBoot{"parameters", "Wren_t507", false, 1,
                   "screen parameters .* FAILED\n  cause: .*\n  remedy: .*\nready"}),
    [](const auto& row) {
        std::string name = row.param.fault;
        name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
        return name;
    });

TEST_F(QuilctlBoot, SeveralFaultsGoTogetherAndOneThatNothingMetIsNamed) {
    const Said said = quilctl({"boot", "--fault", "ddr,clock"});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, ContainsRegex("FPGA memory .* FAILED"));
    EXPECT_THAT(said.out, ContainsRegex("network .* FAILED"));
    EXPECT_THAT(quilctl({"boot", "--fault", "done", "--fault", "screen"}).err,
                HasSubstr("quilctl: nothing in this run has come across the fault 'screen'\n"));
}

TEST_F(QuilctlBoot, FaultThatTheProductsBootNeverMeetsIsRefusedWithThoseThatItMeets) {
    const auto met = [](const tools::Words& words) {
        const std::string said = quilctl(words).err;
        const size_t at = said.find("it meets ");
        return at == std::string::npos ? said : said.substr(at + 9);
    };
    EXPECT_EQ(met({"boot", "--fault", "driver"}),
              "done, ddr, ddr-late, clock, negotiation, link, link-late, spi, screen, phy\n");
    EXPECT_EQ(met({"boot", "--update-fpga", "--fault", "ddr-late"}),
              "page, done, ddr, clock, negotiation, link, link-late, erase, program, spi, screen, "
              "phy, udp\n");
    EXPECT_EQ(met({"--product", "Kestrel", "fpga", "load", "--fault", "ddr,done"}),
              "done, screen, driver, screen-udp\n");
    EXPECT_EQ(met({"--product", "Wren_t507", "boot", "--fault", "done"}), "screen, parameters\n");
    EXPECT_EQ(met({"--product", "Wren_t507", "boot", "--update-fpga", "--fault", "link"}),
              "page, done, erase, program, screen, update, parameters\n");
    const Said said = quilctl({"boot", "--fault", "erase,ddr"});
    EXPECT_EQ(said.code, tools::kUsage);
    EXPECT_THAT(said.err, HasSubstr("--fault erase: a Heron without an update never meets it"));
}

TEST_F(QuilctlBoot, FaultIsOfOneRunAndNotOfTheBoard) {
    const std::string board = newBoard();
    EXPECT_EQ(quilctl({"--board", board, "boot", "--fault", "done,link"}).code, tools::kFailed);
    EXPECT_EQ(quilctl({"--board", board, "boot"}).code, tools::kOk);
}

TEST_F(QuilctlBoot, FaultThatIsNoneIsAUsageErrorThatNamesThem) {
    const Said said = quilctl({"boot", "--fault", "ddr,colour"});
    EXPECT_EQ(said.code, tools::kUsage);
    EXPECT_THAT(said.err, HasSubstr("there is no fault 'colour': erase, program, spi, "));
    EXPECT_THAT(said.err, HasSubstr(", link, link-late (see quilctl boot --help)\n"));
    EXPECT_THAT(quilctl({"boot", "--help"}).out,
                HasSubstr("  ddr-late     the DDR comes good after one more restart"));
}

TEST_F(QuilctlBoot, PrintsJsonWhenAsked) {
    const auto stages = resultOf(quilctl({"--json", "boot"}))["stages"];
    EXPECT_EQ(stages.front()["stage"], "configuration");
    EXPECT_EQ(stages.back()["stage"], "ready for requests");
    EXPECT_EQ(stages.back()["ok"], true);
}

}  // namespace quil::tests
