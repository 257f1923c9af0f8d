// Power is cut at every event of a pending FPGA update; the boots after it end with the new image.
#include "board/core/temporary_directory.h"
#include "fpga/load_process.h"
#include "testing/cut_sweep.h"
#include "testing/slowed.h"
#include "tests/fpga/fpga_test.h"

namespace quil::tests {
namespace {

using board::Board;
using testing::IsEmpty;

// A Heron board's directory with an update pending.
class FpgaUpdateSweep : public testing::Test {
  protected:
    FpgaUpdateSweep() {
        board::createBoardDirectory(scratch.path(), board::Product::kHeron);
        board::writeWholeFile(scratch.path() / "properties",
                              std::string(kFpgaUpdateProperty) + "=1\n");
        former = sweep.fileIn({}, "mtd0");
        image = sweep.fileIn({}, "rootfs/vendor/firmware/fpga_Heron.bin");
        testing::internal::CaptureStderr();
    }
    ~FpgaUpdateSweep() override { testing::internal::GetCapturedStderr(); }

    static void boot(Board& /*board*/) {
        networkIsUp();
        standardOutputOf([] {
            if (parseConfigInfo() == 0) fpgaLoadProcessHeron();
        });
    }

    std::string problemOf(Board& board) const {
        if (!board.violations().empty()) return board.violations().front();
        const auto cells = board.flash().read(0, image.size());
        if (std::string(cells.begin(), cells.end()) != image) return "the flash has another image";
        if (board.gpio().at(kDoneLine).level() != 1) return "DONE is low";
        if (board.properties().get(kFpgaUpdateProperty, "") != "0") return "an update is pending";
        return board.fpga().version() == "V2.1.0" ? "" : "it runs " + board.fpga().version();
    }

    // What is wrong after two boots. The first one loads the image from the flash as it is, and may
    // have to write it.
    std::string mend(const KeptFiles& files) const {
        std::string problem;
        const KeptFiles once = sweep.boot(files, [&](Board& board) {
            if (!board.violations().empty()) problem = board.violations().front();
        });
        if (!problem.empty()) return problem;
        sweep.boot(once, [&](Board& board) { problem = problemOf(board); });
        return problem;
    }

    const board::TemporaryDirectory scratch;
    const CutSweep sweep{scratch.path(), boot};
    std::string former, image;
};

}  // namespace

TEST_F(FpgaUpdateSweep, CutAtAnyEventIsMendedByTheNextBootOrTheOneAfterIt) {
    std::map<std::string, int> found;
    for (const CutState& state : sweep.statesIn({})) {
        EXPECT_EQ(mend(state.files), "") << nameOf(state.first);
        const std::string left = sweep.fileIn(state.files, "mtd0");
        ++found[left == former ? "old" : left == image ? "new" : "neither"];
    }
    EXPECT_GE(found["old"], 1);
    EXPECT_GE(found["neither"], 6) << "inside the erase and the programming, and between them";
    EXPECT_GE(found["new"], 2) << "before and after the update is marked as done";
}

TEST_F(FpgaUpdateSweep, CutsOfTheBootLeaveWhatTheUncutBootTellsOfThem) {
    for (const CutState& state : sweep.statesIn({})) {
        EXPECT_EQ(sweep.leftBy(state.first, {}), state.files) << nameOf(state.first);
    }
}

}  // namespace quil::tests
