// The board's GPIO lines: named lines, each with a sysfs value file, and numbered lines, which the
// closed library drives.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "board/core/services.h"
#include "board/devices/sysfs.h"

namespace quil::board {

inline constexpr char kGpioBoot0[] = "MCU_BOOT0", kGpioNrst[] = "MCU_NRST";

// One line. Every change of its level is a kGpio event with the line's name and "0" or "1".
//
// Faults, by the line's name: Call::kGpioSet (an error, or lostSilently: the level stays) and
// Call::kGpioGet (an error).
class GpioLine {
  public:
    GpioLine(BoardServices& board, std::string name, int level)
        : mBoard(board), mName(std::move(name)), mLevel(level) {}
    GpioLine(const GpioLine&) = delete;
    GpioLine& operator=(const GpioLine&) = delete;

    const std::string& name() const { return mName; }
    int level() const;
    // The line takes this level and keeps it, whoever drives it. -1 ends that; the level stays.
    void stickAt(int level);
    // Called after each change, with the board's lock held.
    void onEdge(std::function<void(int level)>);

    // The host drives or reads the line. drive returns 0 or an errno, read the level or a negated
    // errno.
    int drive(int level);
    int read() const;
    // A part of the board drives the line: faults of the host's calls do not apply.
    void setLevel(int level);

  private:
    BoardServices& mBoard;
    const std::string mName;
    int mLevel;
    int mStuckAt = -1;
    std::vector<std::function<void(int)>> mListeners;
};

class GpioLines {
  public:
    GpioLines(BoardServices&, Sysfs&);
    ~GpioLines();
    GpioLines(const GpioLines&) = delete;
    GpioLines& operator=(const GpioLines&) = delete;

    // Both return the existing line, at its present level, if there is one: a product file may give
    // two purposes the same number.
    //
    // A named line with its file /sys/class/quilgpios/<name>/value.
    GpioLine& add(const std::string& name, int level);
    // A numbered line, named "gpio <number>" in traces and faults.
    GpioLine& add(int number, int level);
    GpioLine* find(const std::string& name);
    GpioLine* find(int number);
    // As find, but throws std::out_of_range if there is no such line.
    GpioLine& at(const std::string& name);
    GpioLine& at(int number);

  private:
    BoardServices& mBoard;
    Sysfs& mSysfs;
    std::map<std::string, std::unique_ptr<GpioLine>> mLines;
};

}  // namespace quil::board
