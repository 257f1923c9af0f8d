// A programming session with a part on a board of its own.
#pragma once

#include <android/log.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <regex>

#include "board/board.h"
#include "board/core/temporary_directory.h"
#include "board/mcu/mcu_fitting.h"
#include "isp/isp_tasks.h"
#include "isp/serial_port.h"
#include "testing/library_test.h"

namespace quil::tests {

inline constexpr char kOlderVersion[] = "V0.9.0", kShippedVersion[] = "V1.0.0";

// A board with the part on it, whose flash holds an older version.
class McuSession {
  public:
    McuSession(board::McuKind kind, size_t imageSize) : mChip(partOf(kind).name) {
        board::createBoardDirectory(mDirectory, board::Product::kHeron);
        board::fitMcu(mDirectory, {kind, kShippedVersion, kOlderVersion, imageSize});
        mBoard.emplace(mDirectory);
    }

    board::Board& board() { return *mBoard; }

    // Runs the session, and gives the MCU time to start.
    int run() {
        std::string image = kMcuImage, port = kHeronUart, chip = mChip;
        int result = 0;
        standardOutputOf(
            [&] { result = mcu_isp_fw_update(image.data(), port.data(), chip.data()); });
        mBoard->runFor(std::chrono::milliseconds(1));
        return result;
    }

    // Puts the older firmware back and powers the board on again, with an empty log and trace.
    void forget() {
        mBoard.reset();
        board::flashMcu(mDirectory, kOlderVersion);
        mBoard.emplace(mDirectory);
    }

    // The levels that take the MCU into the boot loader and back, in the order of its family.
    std::vector<std::string> wholeReset() const {
        std::vector<std::string> levels = {"MCU_BOOT0 1", "MCU_NRST 0", "MCU_NRST 1",
                                           "MCU_BOOT0 0", "MCU_NRST 0", "MCU_NRST 1"};
        if (mChip == "n32g45x") std::swap(levels[0], levels[1]);
        return levels;
    }

    // The levels to which the MCU's lines were driven, in order.
    std::vector<std::string> levels() {
        std::vector<std::string> texts;
        for (const board::Event& event : mBoard->trace().events(board::EventKind::kGpio)) {
            texts.push_back(event.source + " " + event.text);
        }
        return texts;
    }

    // The last `count` error lines, with "#" for the numbers of descriptors.
    std::vector<std::string> lastErrors(size_t count) {
        std::vector<std::string> lines = mBoard->log(ANDROID_LOG_ERROR);
        lines.erase(lines.begin(), lines.end() - static_cast<long>(std::min(count, lines.size())));
        static const std::regex descriptor("fd\\(\\d+\\)");
        for (std::string& line : lines) line = std::regex_replace(line, descriptor, "fd(#)");
        return lines;
    }

  private:
    const FreshLibrary mLibrary;
    const std::string mChip;
    const board::TemporaryDirectory mScratch;
    const std::filesystem::path& mDirectory = mScratch.path();
    std::optional<board::Board> mBoard;
};

}  // namespace quil::tests
