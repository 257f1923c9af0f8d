// Power cuts during an MCU update, and the boots that have to repair the MCU afterwards.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "board/board_directory.h"
#include "board/core/temporary_directory.h"
#include "board/mcu/mcu_fitting.h"
#include "board/mcu/mcu_image.h"
#include "host/hosting_component.h"
#include "testing/cut_sweep.h"

namespace quil::tests {

// A board whose MCU has older firmware: its boots program the shipped one.
class McuUpdateCuts {
  public:
    static constexpr char kOlder[] = "V0.9.0", kShipped[] = "V1.0.0";

    McuUpdateCuts(board::McuKind kind, size_t imageSize)
        : mOlder(board::makeMcuImage(kind, kOlder, imageSize)),
          mShipped(board::makeMcuImage(kind, kShipped, imageSize)) {
        board::createBoardDirectory(mDirectory.path(), board::Product::kHeron);
        board::fitMcu(mDirectory.path(), {kind, kShipped, kOlder, imageSize});
    }

    // What the cuts of an undisturbed update leave.
    std::vector<CutState> states() const { return mSweep.statesIn({}); }

    // Boots from there. Returns what is wrong then, or "".
    std::string mend(const KeptFiles& files) const {
        std::string problem, startedAs;
        mSweep.boot(files, [&](board::Board& board) {
            startedAs = board.mcuChip().starts().front().version;
            problem = problemOf(board);
        });
        const std::string flash = mSweep.fileIn(files, "mcu/flash");
        if (!startedAs.empty() && !standsIn(flash, mOlder) && !standsIn(flash, mShipped)) {
            return "the MCU started a half-written image as " + startedAs;
        }
        return problem;
    }

    const CutSweep& runs() const { return mSweep; }

  private:
    static void start(board::Board& board) {
        host::HostingComponent host;
        host.start();
        board.runFor(std::chrono::milliseconds(10));  // the MCU starts
    }

    std::string problemOf(board::Board& board) const {
        if (!board.violations().empty()) return board.violations().front();
        const std::string runs = board.mcuChip().version();
        if (runs != kShipped) return "the MCU runs '" + runs + "'";
        return standsIn(board.mcuChip().flash().cells(), mShipped)
                   ? ""
                   : "the flash does not hold the shipped image";
    }

    template <typename Flash>
    static bool standsIn(const Flash& flash, const std::string& image) {
        const auto same = [](auto a, auto b) {
            return static_cast<uint8_t>(a) == static_cast<uint8_t>(b);
        };
        return flash.size() >= image.size() &&
               std::equal(image.begin(), image.end(), flash.begin(), same);
    }

    const board::TemporaryDirectory mDirectory;
    const std::string mOlder, mShipped;
    const CutSweep mSweep{mDirectory.path(), start};
};

}  // namespace quil::tests
