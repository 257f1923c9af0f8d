// Power is cut at every event of a pending FPGA update; the boots after it end with the new image.
#include <array>
#include <filesystem>
#include <map>

#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "fpga/load_process.h"
#include "tests/fpga/fpga_test.h"

namespace quil::tests {
namespace {

using board::Board;
using board::CutPosition;
using board::EventKind;
using testing::IsEmpty;

namespace fs = std::filesystem;

// A Heron board's directory with an update pending; restore() undoes what a boot changed.
class FpgaUpdateSweep : public testing::Test {
  protected:
    FpgaUpdateSweep() {
        board::createBoardDirectory(directory, board::Product::kHeron);
        board::writeWholeFile(directory / "properties", std::string(kFpgaUpdateProperty) + "=1\n");
        oldFlash = board::readWholeFile(directory / "mtd0").value_or("");
        image = board::readWholeFile(directory / "rootfs/vendor/firmware/fpga_Heron.bin").value();
    }

    void restore() const {
        board::writeWholeFile(directory / "mtd0", oldFlash);
        board::writeWholeFile(directory / "properties", std::string(kFpgaUpdateProperty) + "=1\n");
    }

    static int32_t boot() {
        const FreshLibrary library;
        networkIsUp();
        int32_t result = -1;
        testing::internal::CaptureStderr();
        standardOutputOf([&] {
            if (parseConfigInfo() == 0) result = fpgaLoadProcessHeron();
        });
        testing::internal::GetCapturedStderr();
        return result;
    }

    // The number of events up to and with the one that marks the update as done.
    uint64_t eventsOfTheUpdate() {
        Board board(directory);
        const uint64_t first = board.trace().count() - board.trace().events().size();
        EXPECT_EQ(boot(), 0);
        const auto events = board.trace().events();
        uint64_t last = 0;
        for (size_t i = 0; i < events.size(); ++i) {
            if (events[i].kind == EventKind::kProperty && events[i].source == kFpgaUpdateProperty)
                last = i;
        }
        return first + last + 1;
    }

    bool isUpdated(Board& board) const {
        const auto cells = board.flash().read(0, image.size());
        return std::string(cells.begin(), cells.end()) == image &&
               board.gpio().at(443).level() == 1 &&
               board.properties().get(kFpgaUpdateProperty, "") == "0";
    }

    const board::TemporaryDirectory scratch;
    const fs::path& directory = scratch.path();
    std::string oldFlash, image;
};

}  // namespace

TEST_F(FpgaUpdateSweep, CutAtAnyEventIsMendedByTheNextBootOrTheOneAfterIt) {
    const uint64_t events = eventsOfTheUpdate();
    ASSERT_GT(events, 20U);
    std::map<std::string, int> found;
    for (uint64_t event = 2; event <= events + 2; ++event) {
        for (const auto position :
             {CutPosition::kBefore, CutPosition::kInside, CutPosition::kAfter}) {
            SCOPED_TRACE(std::to_string(event) + " " + nameOf(position));
            restore();
            {
                Board board(directory);
                board.cutPowerAt({event, position});
                boot();
                ASSERT_TRUE(board.powerIsCut());
                ASSERT_THAT(board.violations(), IsEmpty());
            }
            const std::string left = board::readWholeFile(directory / "mtd0").value_or("");
            ++found[left == oldFlash ? "old" : left == image ? "new" : "neither"];
            int boots = 0;
            for (bool done = false; !done && boots < 2; ++boots) {
                Board board(directory);
                boot();
                ASSERT_THAT(board.violations(), IsEmpty());
                done = isUpdated(board);
            }
            Board board(directory);
            EXPECT_TRUE(isUpdated(board)) << "after " << boots << " boots";
            EXPECT_EQ(board.fpga().version(), "V2.1.0");
        }
    }
    EXPECT_GT(found["old"], 5);
    EXPECT_GT(found["neither"], 5) << "cuts between the erase and the last page";
    EXPECT_GT(found["new"], 5);
}

}  // namespace quil::tests
