// What programming the MCU costs: in board time, compared with the sum of the contract's pauses,
// the bytes on the line and the work of the flash; and in processor time, the board included.
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>

#include "bench/mcu_bench.h"
#include "board/board.h"
#include "board/core/temporary_directory.h"
#include "board/mcu/mcu_fitting.h"
#include "isp/isp_tasks.h"

namespace quil::bench {
namespace {

namespace fs = std::filesystem;
using board::McuPart;
using board::Nanos;
using std::chrono::milliseconds;

constexpr board::LineSettings kIspLine{115200, 8, 'O', 1};

double seconds(Nanos time) { return std::chrono::duration<double>(time).count(); }

double processorSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// The time that a session has to take, from the contract's numbers and the part's data alone.
class Prediction {
  public:
    Prediction(const McuPart& part, size_t size) : mPart(part) {
        pause(milliseconds(100 + 300 + 100 + 500));  // into the boot loader
        exchange(1, 1, {});                          // synchronise
        exchange(2, 7, {});                          // command 0x06: ACK, 4, identifier, ACK
        erase(size / kPageOfTheBoard + 1);
        for (size_t at = 0; at < size; at += kBlock) writeBlock();
        pause(milliseconds(300 + 100 + 100));  // into the application
    }

    Nanos pauses() const { return mPauses; }
    Nanos line() const { return mLine; }
    Nanos flash() const { return mFlash; }
    Nanos total() const { return mPauses + mLine + mFlash; }
    size_t bytes() const { return mBytes; }

  private:
    static constexpr size_t kBlock = 256;
    static constexpr size_t kPageOfTheBoard = 4096;    // what it takes for a page of the GD32F470
    static constexpr Nanos kRound = milliseconds(10);  // between two polls of the line

    void pause(Nanos time) { mPauses += time; }

    // The line's and the flash's time, rounded up to the polls: the first one comes after `pause`.
    void exchange(size_t sent, size_t answered, Nanos flash, Nanos pause = {}) {
        const Nanos line = static_cast<long>(sent + answered) * kIspLine.byteTime();
        const Nanos busy = line + flash;
        const Nanos left = std::max(busy - pause, Nanos(0));
        const Nanos rounds = (left + kRound - Nanos(1)) / kRound * kRound;
        mPauses += pause + rounds - busy;
        mLine += line;
        mFlash += flash;
        mBytes += sent + answered;
    }

    // The part takes the numbers for its own sectors, and passes over those that it has not.
    void erase(size_t numbers) {
        exchange(2, 1, {});
        Nanos time{0};
        size_t left = numbers;
        for (const auto& region : mPart.regions) {
            const size_t sectors = std::min<size_t>(left, region.pages);
            time += static_cast<long>(sectors) * region.erase.typical;
            left -= sectors;
        }
        exchange(2 + 2 * numbers + 1, 1, time, milliseconds(1000));
    }

    void writeBlock() {
        exchange(2, 1, {});
        exchange(5, 1, {});
        const size_t units = kBlock / mPart.programUnit;
        exchange(1 + kBlock + 1, 1, static_cast<long>(units) * mPart.program.typical);
    }

    const McuPart& mPart;
    Nanos mPauses{0}, mLine{0}, mFlash{0};
    size_t mBytes = 0;
};

// A board whose MCU holds other firmware of the same size, and one session with it.
class Session {
  public:
    Session(board::McuKind kind, size_t size) : mPart(partOf(kind)) {
        board::createBoardDirectory(mDirectory, board::Product::kHeron);
        board::fitMcu(mDirectory, {.kind = kind, .flashed = "V0.9.0", .imageSize = size});
        mBoard.emplace(mDirectory);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    board::Board& board() { return *mBoard; }
    const McuPart& part() const { return mPart; }

    // Returns its length in board time.
    Nanos run() {
        std::string image = "/vendor/firmware/mcu_Heron.bin", port = mBoard->mcuUart().path();
        std::string chip = mPart.name;
        const Nanos start = mBoard->now();
        const int result = mcu_isp_fw_update(image.data(), port.data(), chip.data());
        const Nanos time = mBoard->now() - start;
        mBoard->runFor(std::chrono::milliseconds(1));  // the MCU starts
        if (result != 0 || mBoard->mcuChip().version() != "V1.0.0") {
            throw std::runtime_error("the session failed: " + std::to_string(result));
        }
        return time;
    }

  private:
    const McuPart& mPart;
    const board::TemporaryDirectory mScratch;
    const fs::path& mDirectory = mScratch.path();
    std::optional<board::Board> mBoard;
};

bool printBoardTime(std::ostream& out, board::McuKind kind, size_t size) {
    Session session(kind, size);
    const Nanos total = session.run();
    const Prediction prediction(session.part(), size);
    char text[160];
    snprintf(text, sizeof(text), "%s, %zu KiB: %.6f s of board time\n", session.part().name,
             size / 1024, seconds(total));
    out << text;
    const auto row = [&](const char* what, Nanos time, const std::string& note) {
        snprintf(text, sizeof(text), "  %-10s %12.6f s  %s\n", what, seconds(time), note.c_str());
        out << text;
    };
    row("pauses", prediction.pauses(), "fixed ones, and what is left of each 10 ms round");
    row("line", prediction.line(), std::to_string(prediction.bytes()) + " bytes of 11 bits");
    row("flash", prediction.flash(), "erase and program");
    row("remainder", total - prediction.total(), "");
    return total == prediction.total();
}

void printProcessorTime(std::ostream& out, board::McuKind kind, size_t size) {
    constexpr int kRuns = 5;
    double best = 1e9, boardTime = 0;
    for (int i = 0; i < kRuns; ++i) {
        Session session(kind, size);
        session.board().trace().setRecording(false);
        const double start = processorSeconds();
        boardTime = seconds(session.run());
        best = std::min(best, processorSeconds() - start);
    }
    char text[160];
    snprintf(text, sizeof(text),
             "%s, %zu KiB: %.2f s of board time took %.1f ms of processor time: %.0f times\n",
             partOf(kind).name, size / 1024, boardTime, best * 1e3, boardTime / best);
    out << text;
}

}  // namespace

bool mcuProgramming(std::ostream& out) {
    bool isAsPredicted = true;
    for (const size_t size : {size_t{64} * 1024, size_t{256} * 1024}) {
        isAsPredicted &= printBoardTime(out, board::McuKind::kGd32F470, size);
    }
    printProcessorTime(out, board::McuKind::kGd32F470, size_t{256} * 1024);
    return isAsPredicted;
}

}  // namespace quil::bench
