// quilctl fpga: writing an image, the FPGA's state, the load sequence by stages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "board/fpga/fpga_image.h"
#include "fpga/screen/screen_params.h"
#include "tests/quilctl/test_run.h"

namespace quil::tests {

namespace fs = std::filesystem;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class QuilctlFpga : public QuilctlRun {};

TEST_F(QuilctlFpga, StatusTellsWhatTheFpgaAndThePhySay) {
    const Said said = quilctl({"fpga", "status"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_EQ(said.out,
              "DONE               high\n"
              "image              V2.0.7\n"
              "DDR                good\n"
              "SGMII clock        present\n"
              "SGMII negotiation  complete\n"
              "PHY link           down\n");
}

TEST_F(QuilctlFpga, StatusOfAnFpgaWithoutConfigurationFails) {
    const Said said = quilctl({"--product", "Kestrel", "fpga", "status"});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, StartsWith("DONE               low\nimage              none\n"
                                     "DDR                not ready (255)\n"));
}

TEST_F(QuilctlFpga, FlashedImageRunsAndStaysOnTheBoard) {
    const std::string board = newBoard();
    const std::string image = imageFile(board::makeFpgaImage("V9.9.9", 100000));
    const Said said = quilctl({"--board", board, "fpga", "flash", image});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_EQ(said.out,
              "100000 bytes in 31.974 s of board time: ok\n"
              "DONE               high\n"
              "image              V9.9.9\n");
    EXPECT_THAT(said.err, HasSubstr("    31.200 s  /dev/mtd0: erased\n"));
    EXPECT_THAT(quilctl({"--board", board, "fpga", "status"}).out, HasSubstr("V9.9.9"));
    EXPECT_FALSE(fs::exists(board + "/rootfs/vendor/firmware/quilctl_fpga.bin"));
}

TEST_F(QuilctlFpga, DamagedImageIsFlashedAsItIsButDoesNotRun) {
    std::string damaged = board::makeFpgaImage("V9.9.9", 1000);
    damaged.back() ^= 1;
    const Said said = quilctl({"fpga", "flash", "--as-is", imageFile(damaged)});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, ContainsRegex("1000 bytes in .* FAILED \\(wrong CRC\\)\n"));
    EXPECT_THAT(said.err,
                HasSubstr("E/quil_system_fw_update: fpgaFwUpdate: fpga done pin check failed\n"));
    EXPECT_EQ(quilctl({"fpga", "flash", "/none"}).code, tools::kUsage);
}

TEST_F(QuilctlFpga, LoadShowsItsStages) {
    const Said said = quilctl({"fpga", "load"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_THAT(said.out, StartsWith("stage                        from         took  result\n"
                                     "configuration             0.000 s      0.000 s  ok (Heron)\n"
                                     "FPGA configured           0.000 s      0.000 s  ok\n"
                                     "FPGA memory               0.000 s      1.000 s  ok\n"
                                     "screen parameters         1.000 s "));
    EXPECT_THAT(said.out, ContainsRegex("network +[0-9.]+ s +0\\.8[0-9]+ s  ok\n"));
    EXPECT_THAT(said.out, EndsWith("PHY link           up\n"));
    EXPECT_EQ(said.err, "");
}

TEST_F(QuilctlFpga, LoadWithAPendingUpdateShowsItsStagesToo) {
    const std::string board = newBoard();
    std::ofstream(board + "/properties") << "persist.quil.system.fpga.fw.update=1\n";
    const Said said = quilctl({"--board", board, "fpga", "load"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_THAT(said.out, HasSubstr("FPGA flash erased         0.000 s     31.200 s  ok\n"));
    EXPECT_THAT(said.out, HasSubstr("FPGA image written       31.200 s      1.179 s  ok\n"));
    EXPECT_THAT(said.out, HasSubstr("FPGA configured          32.379 s      0.500 s  ok\n"));
    EXPECT_THAT(said.out, ContainsRegex("switch to UDP .* ok\nDONE +high\nimage +V2.1.0\n"));
}

TEST_F(QuilctlFpga, StageThatFailsSaysWhy) {
    const std::string board = newBoard();
    fs::remove(board + "/rootfs/dev/block/by-name/screen");
    const Said said = quilctl({"--board", board, "fpga", "load"});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, HasSubstr("screen parameters         1.000 s      0.000 s  FAILED\n"
                                    "  cause: the screen parameters did not reach the FPGA: "
                                    "fpgaLoadScreenParamsBySpi: failed to read screen paramter\n"));
    EXPECT_THAT(said.out, ContainsRegex("network .* ok\n"));
}

TEST_F(QuilctlFpga, LoadWithAFaultShowsItInStagesAndState) {
    const Said said = quilctl({"fpga", "load", "--fault", "ddr,link"});
    EXPECT_EQ(said.code, tools::kFailed);
    EXPECT_THAT(said.out, ContainsRegex("FPGA memory .* FAILED"));
    EXPECT_THAT(said.out, ContainsRegex("network .* FAILED"));
    EXPECT_THAT(said.out, HasSubstr("DDR                not ready (0)\n"));
    EXPECT_THAT(said.out, HasSubstr("PHY link           down\n"));
}

TEST_F(QuilctlFpga, OtherProductsHaveTheirOwnStages) {
    EXPECT_THAT(quilctl({"--product", "Kestrel", "fpga", "load"}).out,
                ContainsRegex("FPGA loaded .* ok\nscreen parameters .* ok\nDONE +high\n"));
    EXPECT_THAT(quilctl({"--product", "Wren_t507", "fpga", "load"}).out,
                ContainsRegex("configuration .* ok .Wren_t507.\nscreen parameters .* ok\n"));
}

TEST_F(QuilctlFpga, PrintsJsonWhenAsked) {
    const auto status = resultOf(quilctl({"--json", "fpga", "status"}))["status"];
    EXPECT_EQ(status["done"], "high");
    const auto load = resultOf(quilctl({"--json", "fpga", "load"}));
    EXPECT_EQ(load["loaded"], true);
    EXPECT_EQ(load["stages"][2]["stage"], "FPGA memory");
    EXPECT_EQ(load["status"]["link"], "up");
}

TEST_F(QuilctlFpga, LogLevelOfABoardIsTheSameAfterALoad) {
    const std::string board = newBoard("Wren_t507");
    quilctl({"--board", board, "fpga", "load"});
    std::ifstream in(board + "/properties");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "");
}

}  // namespace quil::tests
