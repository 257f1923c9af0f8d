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
    return level_;
}

void GpioLine::stickAt(int level) {
    Guard guard(boardLock());
    stuckAt_ = -1;
    if (level >= 0) setLevel(level);
    stuckAt_ = level;
}

void GpioLine::onEdge(std::function<void(int level)> listener) {
    Guard guard(boardLock());
    listeners_.push_back(std::move(listener));
}

int GpioLine::drive(int level) {
    Guard guard(boardLock());
    const auto fault = board_.faults.take(Call::kGpioSet, name_);
    if (board_.power.isCut()) return EIO;
    if (fault && fault->error != 0) return fault->error;
    if (!fault) setLevel(level);
    return 0;
}

int GpioLine::read() const {
    Guard guard(boardLock());
    const auto fault = board_.faults.take(Call::kGpioGet, name_);
    return fault ? -fault->error : level_;
}

void GpioLine::setLevel(int level) {
    Guard guard(boardLock());
    if (stuckAt_ >= 0 || level == level_) return;
    board_.trace.add(EventKind::kGpio, name_, std::to_string(level));
    if (board_.power.isCut()) return;
    level_ = level;
    for (const auto& listener : listeners_) listener(level);
}

GpioLines::GpioLines(BoardServices& board, Sysfs& sysfs) : board_(board), sysfs_(sysfs) {}
GpioLines::~GpioLines() = default;

GpioLine& GpioLines::add(const std::string& name, int level) {
    Guard guard(boardLock());
    auto& line = lines_[name];
    if (line) return *line;
    line = std::make_unique<GpioLine>(board_, name, level);
    sysfs_.add("/sys/class/quilgpios/" + name + "/value",
               {[at = line.get()] {
                    const int level = at->read();
                    return level < 0 ? std::string() : std::to_string(level) + "\n";
                },
                [at = line.get()](std::string_view text) { return store(*at, text); }});
    return *line;
}

GpioLine& GpioLines::add(int number, int level) {
    Guard guard(boardLock());
    auto& line = lines_[numbered(number)];
    if (!line) line = std::make_unique<GpioLine>(board_, numbered(number), level);
    return *line;
}

GpioLine* GpioLines::find(const std::string& name) {
    Guard guard(boardLock());
    const auto found = lines_.find(name);
    return found == lines_.end() ? nullptr : found->second.get();
}

GpioLine* GpioLines::find(int number) { return find(numbered(number)); }

GpioLine& GpioLines::at(const std::string& name) {
    GpioLine* line = find(name);
    if (line == nullptr) throw std::out_of_range("no GPIO line " + name);
    return *line;
}

GpioLine& GpioLines::at(int number) { return at(numbered(number)); }

}  // namespace quil::board
