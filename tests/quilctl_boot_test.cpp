// quilctl boot: a whole start-up by stages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/quilctl_test_run.h"

namespace quil::tests {

namespace fs = std::filesystem;
using testing::ContainsRegex;
using testing::HasSubstr;

class QuilctlBoot : public QuilctlRun {};

TEST_F(QuilctlBoot, StagesFollowFromTheConfigurationToTheService) {
    const Said said = quilctl({"boot"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_THAT(said.out, ContainsRegex("^stage +from +took  result\n"
                                        "configuration +0.000 s .* ok .Heron.\n"
                                        "MCU firmware .* ok .up to date.\n"
                                        "FPGA configured .* ok\n"
                                        "FPGA memory .* 1.000 s  ok\n"
                                        "screen parameters .* ok\n"
                                        "network .* ok\n"
                                        "ready for requests .* ok\n$"));
    EXPECT_THAT(said.err, ContainsRegex("s  network +ok\n"));
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

TEST_F(QuilctlBoot, OtherProductsHaveTheirOwnStages) {
    EXPECT_THAT(quilctl({"--product", "Kestrel", "boot"}).out,
                ContainsRegex("FPGA loaded .* ok\nscreen parameters .* ok\nready"));
    EXPECT_THAT(quilctl({"--product", "Wren_t507", "boot", "--update-fpga"}).out,
                ContainsRegex("FPGA image written .* ok\nscreen parameters .* ok\nready"));
}

TEST_F(QuilctlBoot, StageThatFailsIsTheExitCodeAndTheServiceComesUpAllTheSame) {
    const std::string board = newBoard();
    fs::remove(board + "/rootfs/vendor/bin/mtd_debug");
    const Said said = quilctl({"--board", board, "boot", "--update-fpga"});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, ContainsRegex("FPGA flash erased .* FAILED .fpgaFlashFormat: mtd_debug "
                                        "tool not exist.\nready for requests .* ok\n"));
}

TEST_F(QuilctlBoot, PrintsJsonWhenAsked) {
    const auto stages = nlohmann::json::parse(quilctl({"--json", "boot"}).out);
    EXPECT_EQ(stages.front()["stage"], "configuration");
    EXPECT_EQ(stages.back()["stage"], "ready for requests");
    EXPECT_EQ(stages.back()["ok"], true);
}

}  // namespace quil::tests
