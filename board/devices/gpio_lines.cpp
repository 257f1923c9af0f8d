#include "board/devices/gpio_lines.h"

#include <errno.h>

#include <stdexcept>

namespace quil::board {
namespace {

std::string numbered(int number) { return "gpio " + std::to_string(number); }

// The driver takes one digit, with or without a line end.
int store(GpioLine& line, std::string_view text) {
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    if (text != "0" && text != "1") return EINVAL;
    return line.drive(text == "1" ? 1 : 0);
}

}  // namespace

int GpioLine::level() const {
    Guard guard(boardLock());
    return mLevel;
}

void GpioLine::stickAt(int level) {
    Guard guard(boardLock());
    mStuckAt = -1;
    if (level >= 0) setLevel(level);
    mStuckAt = level;
}

void GpioLine::onEdge(std::function<void(int level)> listener) {
    Guard guard(boardLock());
    mListeners.push_back(std::move(listener));
}

int GpioLine::drive(int level) {
    Guard guard(boardLock());
    const auto fault = mBoard.faults.take(Call::kGpioSet, mName);
    if (mBoard.power.isCut()) return EIO;
    if (fault && fault->error != 0) return fault->error;
    if (!fault) setLevel(level);
    return 0;
}

int GpioLine::read() const {
    Guard guard(boardLock());
    const auto fault = mBoard.faults.take(Call::kGpioGet, mName);
    return fault ? -fault->error : mLevel;
}

void GpioLine::setLevel(int level) {
    Guard guard(boardLock());
    if (mStuckAt >= 0 || level == mLevel) return;
    mBoard.trace.add(EventKind::kGpio, mName, std::to_string(level));
    if (mBoard.power.isCut()) return;
    mLevel = level;
    for (const auto& listener : mListeners) listener(level);
}

GpioLines::GpioLines(BoardServices& board, Sysfs& sysfs) : mBoard(board), mSysfs(sysfs) {}
GpioLines::~GpioLines() = default;

GpioLine& GpioLines::add(const std::string& name, int level) {
    Guard guard(boardLock());
    auto& line = mLines[name];
    if (line) return *line;
    line = std::make_unique<GpioLine>(mBoard, name, level);
    mSysfs.add("/sys/class/quilgpios/" + name + "/value",
               {[at = line.get()] {
                    const int level = at->read();
                    return level < 0 ? std::string() : std::to_string(level) + "\n";
                },
                [at = line.get()](std::string_view text) { return store(*at, text); }});
    return *line;
}

GpioLine& GpioLines::add(int number, int level) {
    Guard guard(boardLock());
    auto& line = mLines[numbered(number)];
    if (!line) line = std::make_unique<GpioLine>(mBoard, numbered(number), level);
    return *line;
}

GpioLine* GpioLines::find(const std::string& name) {
    Guard guard(boardLock());
    const auto found = mLines.find(name);
    return found == mLines.end() ? nullptr : found->second.get();
}

GpioLine* GpioLines::find(int number) { return find(numbered(number)); }

GpioLine& GpioLines::at(const std::string& name) {
    GpioLine* line = find(name);
    if (line == nullptr) throw std::out_of_range("no GPIO line " + name);
    return *line;
}

GpioLine& GpioLines::at(int number) { return at(numbered(number)); }

}  // namespace quil::board
