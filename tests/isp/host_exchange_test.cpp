// What the board writes into a part stm32flash reads back, and the other way round.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board/board.h"
#include "board/core/whole_file.h"
#include "board/mcu/mcu_fitting.h"
#include "board/mcu/mcu_image.h"
#include "isp/isp_tasks.h"
#include "testing/library_test.h"
#include "testing/pty_part.h"

namespace quil::tests {
namespace {

using board::McuKind;

constexpr size_t kImageSize = 8192;

class IspBesideStm32flash : public testing::TestWithParam<McuKind> {
  protected:
    void SetUp() override {
        if (!hasStm32flash()) GTEST_SKIP() << "stm32flash is not installed";
        board::createBoardDirectory(mScratch.path(), board::Product::kHeron);
        board::fitMcu(mScratch.path(), {GetParam(), "V1.0.0", "V0.9.0", kImageSize});
    }
    std::filesystem::path file(const char* name) const { return mScratch.path() / name; }
    std::string imageOf(const char* version) const {
        return board::makeMcuImage(GetParam(), version, kImageSize);
    }
    // With the part's flash on the board that is off.
    void stm32flash(const std::string& arguments) const {
        const PtyPart part({.part = GetParam(), .flash = file("mcu/flash")});
        const CommandRun run = part.stm32flash(arguments);
        EXPECT_EQ(run.status, 0) << run.output;
    }

    const FreshLibrary library;

  private:
    const board::TemporaryDirectory mScratch;
};

TEST_P(IspBesideStm32flash, ReadsWhatTheSessionWrote) {
    {
        board::Board board(file(""));
        std::string image = kMcuImage, port = kHeronUart, chip = partOf(GetParam()).name;
        standardOutputOf(
            [&] { EXPECT_EQ(mcu_isp_fw_update(image.data(), port.data(), chip.data()), 0); });
    }
    stm32flash("-S 0x08000000:8192 -r " + file("copy").string());
    EXPECT_EQ(board::readWholeFile(file("copy")), imageOf("V1.0.0"));
}

TEST_P(IspBesideStm32flash, WritesWhatTheDiagnosticSessionReadsAndTheMcuStarts) {
    board::writeWholeFile(file("image"), imageOf("V7.7.7"));
    stm32flash("-v -w " + file("image").string());
    board::Board board(file(""));
    EXPECT_EQ(board.mcuChip().version(), "V7.7.7");
    standardOutputOf([&] { EXPECT_EQ(task(0x11, kMcuImage, kHeronUart), 0); });
    EXPECT_EQ(board::readWholeFile(board.hostPath("/opt/test2.bin")), imageOf("V7.7.7"));
}

INSTANTIATE_TEST_SUITE_P(Parts, IspBesideStm32flash,
                         testing::Values(McuKind::kGd32F303, McuKind::kGd32F470,
                                         McuKind::kStm32H750),
                         [](const auto& info) { return std::string(partOf(info.param).name); });

}  // namespace
}  // namespace quil::tests
