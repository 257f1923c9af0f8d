// Power cuts during an MCU update, and the boots that have to repair the MCU afterwards.
#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "board/board.h"
#include "board/board_directory.h"
#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "board/mcu/mcu_fitting.h"
#include "board/mcu/mcu_image.h"
#include "host/hosting_component.h"
#include "testing/library_state.h"

namespace quil::tests {

inline std::string nameOf(const board::PowerCut& cut) {
    return std::to_string(cut.event) + ":" + nameOf(cut.position);
}

// Reads "123:inside".
inline std::optional<board::PowerCut> cutNamed(const std::string& text) {
    board::PowerCut cut{};
    const size_t colon = text.find(':');
    if (colon == std::string::npos) return std::nullopt;
    std::from_chars(text.data(), text.data() + colon, cut.event);
    for (const auto position :
         {board::CutPosition::kBefore, board::CutPosition::kInside, board::CutPosition::kAfter}) {
        if (text.substr(colon + 1) != nameOf(position)) continue;
        cut.position = position;
        return cut;
    }
    return std::nullopt;
}

// A board whose MCU has older firmware: its boots program the shipped one.
class McuUpdateCuts {
  public:
    static constexpr char kOlder[] = "V0.9.0", kShipped[] = "V1.0.0";

    McuUpdateCuts(board::McuKind kind, size_t imageSize)
        : mOlder(board::makeMcuImage(kind, kOlder, imageSize)),
          mShipped(board::makeMcuImage(kind, kShipped, imageSize)) {
        board::createBoardDirectory(mDirectory, board::Product::kHeron);
        board::fitMcu(mDirectory, {kind, kShipped, kOlder, imageSize});
    }

    // The three cuts at every `stride`-th event of an undisturbed update; none if it fails.
    std::vector<board::PowerCut> allCuts(uint64_t stride = 1) {
        restore();
        const Boot boot = bootOnce(std::nullopt);
        std::vector<board::PowerCut> cuts;
        if (!problemOf(boot).empty()) return cuts;
        for (uint64_t event = boot.firstEvent; event < boot.endEvent; event += stride) {
            for (const auto position : {board::CutPosition::kBefore, board::CutPosition::kInside,
                                        board::CutPosition::kAfter}) {
                cuts.push_back({event, position});
            }
        }
        return cuts;
    }

    // Cuts the power there and boots again. Returns what is wrong then, or "".
    std::string cutAndMend(const board::PowerCut& cut) {
        restore();
        const Boot broken = bootOnce(cut);
        if (!broken.wasCut) return "the power was never cut";
        const std::string flash = board::readWholeFile(mDirectory / "mcu/flash").value_or("");
        const Boot mended = bootOnce(std::nullopt);
        if (!mended.startedAs.empty() && !standsIn(flash, mOlder) && !standsIn(flash, mShipped)) {
            return "the MCU started a half-written image as " + mended.startedAs;
        }
        return problemOf(mended);
    }

  private:
    struct Boot {
        bool wasCut = false;
        uint64_t firstEvent = 0, endEvent = 0;
        std::string startedAs;  // the version that runs at power-on; "": none
        std::string runs;       // the version that runs after the boot
        bool flashIsWhole = false;
        std::string violation;
    };

    // Undoes what an update changes: the older version is in the flash, and no version is recorded.
    void restore() {
        board::writeWholeFile(mDirectory / "mcu/flash", mOlder);
        board::writeWholeFile(mDirectory / "properties", "");
    }

    Boot bootOnce(std::optional<board::PowerCut> cut) {
        const FreshLibrary library;
        Boot boot;
        board::Board board(mDirectory);
        board.trace().setRecording(false);
        boot.firstEvent = board.trace().count();
        boot.startedAs = board.mcuChip().version();
        if (cut) board.cutPowerAt(*cut);
        {
            host::HostingComponent host;
            host.start();
            board.runFor(std::chrono::milliseconds(10));  // the MCU starts
        }
        boot.wasCut = board.powerIsCut();
        boot.endEvent = board.trace().count();
        boot.runs = board.mcuChip().version();
        boot.flashIsWhole = standsIn(board.mcuChip().flash().cells(), mShipped);
        if (!board.violations().empty()) boot.violation = board.violations().front();
        return boot;
    }

    static std::string problemOf(const Boot& boot) {
        if (!boot.violation.empty()) return boot.violation;
        if (boot.runs != kShipped) return "the MCU runs '" + boot.runs + "'";
        return boot.flashIsWhole ? "" : "the flash does not hold the shipped image";
    }

    template <typename Flash>
    static bool standsIn(const Flash& flash, const std::string& image) {
        const auto same = [](auto a, auto b) {
            return static_cast<uint8_t>(a) == static_cast<uint8_t>(b);
        };
        return flash.size() >= image.size() &&
               std::equal(image.begin(), image.end(), flash.begin(), same);
    }

    const board::TemporaryDirectory mScratch;
    const std::filesystem::path& mDirectory = mScratch.path();
    const std::string mOlder, mShipped;
};

}  // namespace quil::tests
