// A part of the simulated board with the programmer at its serial line, in board time.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "board/board.h"
#include "board/core/temporary_directory.h"
#include "board/mcu/mcu_fitting.h"
#include "board/mcu/mcu_image.h"
#include "programmer/session.h"
#include "testing/bytes.h"
#include "tools/quilctl/programming/serial_transport.h"

namespace quil::tests {

using programmer::Outcome;
using programmer::Report;
using programmer::Trouble;

inline constexpr const char* kEveryPart[] = {"gd32f303", "gd32f470", "gd32e503", "stm32h750",
                                             "n32g45x"};

// What a line does to the bytes on it. Of what the host writes, an empty run is lost.
struct Habit {
    std::function<void(Bytes& written, const programmer::LineMode& mode)> onWrite = nullptr;
    std::function<void(std::span<uint8_t> heard)> onRead = nullptr;
};

class LineWithHabit : public programmer::Transport {
  public:
    LineWithHabit(programmer::Transport& line, const Habit& habit) : mLine(line), mHabit(habit) {}

    void write(std::span<const uint8_t> bytes) override {
        Bytes written(bytes.begin(), bytes.end());
        if (mHabit.onWrite) mHabit.onWrite(written, mMode);
        mLine.write(written);
    }
    size_t read(std::span<uint8_t> into, programmer::Nanos deadline) override {
        const size_t got = mLine.read(into, deadline);
        if (mHabit.onRead && got > 0) mHabit.onRead(into.first(got));
        return got;
    }
    bool lines(bool boot0, bool nrst) override { return mLine.lines(boot0, nrst); }
    void setMode(const programmer::LineMode& mode) override {
        mLine.setMode(mode);
        mMode = mode;
    }
    programmer::Nanos now() const override { return mLine.now(); }

  private:
    programmer::Transport& mLine;
    const Habit& mHabit;
    programmer::LineMode mMode;
};

class PartOnBoard {
  public:
    explicit PartOnBoard(const std::string& chip) : mPart(*board::partNamedIn(chip)) {
        board::createBoardDirectory(directory(), board::Product::kHeron);
        board::fitMcu(directory(), {.kind = mPart.kind});
        powerOn();
        settings.chip = chip;
    }

    void powerOn() {
        mBoard.emplace(directory());
        mBoard->trace().setRecording(false);
    }
    void powerOff() { mBoard.reset(); }

    board::Board& board() { return *mBoard; }
    board::McuChip& chip() { return mBoard->mcuChip(); }
    const board::McuPart& part() const { return mPart; }
    const std::filesystem::path& directory() const { return mScratch.path(); }

    Bytes imageOf(const std::string& version, size_t size) const {
        const std::string text = board::makeMcuImage(mPart.kind, version, size);
        return {text.begin(), text.end()};
    }
    void put(const Bytes& image) { chip().flashImage(textOf(image)); }
    Bytes cells(size_t size) {
        const auto all = chip().flash().cells();
        return {all.begin(), all.begin() + static_cast<ptrdiff_t>(size)};
    }
    void add(const board::LoaderFault& fault) { chip().loaderFaults().add(fault); }

    // Runs `work` with a new session at the board's line.
    template <typename Work>
    Report session(Work work) {
        tools::SerialTransport port(mBoard->mcuUart().path(), lines);
        LineWithHabit line(port, habit);
        programmer::Session session(line, settings, callbacks);
        return work(session);
    }
    Report flash(const Bytes& image) {
        return session([&](programmer::Session& session) { return session.flash(image); });
    }
    Report verify(const Bytes& image) {
        return session([&](programmer::Session& session) { return session.verify(image); });
    }
    // The application's version once the part has had time to start.
    std::string runs() {
        mBoard->runFor(std::chrono::milliseconds(5));
        return chip().version();
    }

    programmer::Settings settings;
    programmer::Callbacks callbacks;
    tools::SerialTransport::Lines lines = tools::boardLines();
    Habit habit;

  private:
    const board::TemporaryDirectory mScratch{"programmer"};
    const board::McuPart& mPart;
    std::optional<board::Board> mBoard;
};

inline std::string textOf(const Report& report) {
    std::string text = programmer::rowOf(report.outcome).name + (": " + report.reason);
    for (const auto& row : programmer::kTroubles) {
        const size_t times = report.statistics.times(row.trouble);
        if (times > 0) text += std::string("; ") + row.name + " " + std::to_string(times);
    }
    return text;
}

}  // namespace quil::tests
