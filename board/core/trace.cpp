#include "board/core/trace.h"

#include <array>
#include <cstdio>

#include "board/core/board_directory.h"
#include "board/machine.h"

namespace quil::board {
namespace {

constexpr std::array<const char*, 20> kKindNames = {
    "power", "open",  "close", "uart-tx", "uart-rx",  "frame", "gpio",
    "shell", "sleep", "log",   "request", "property", "fault", "violation",
    "note",  "probe", "spi",   "flash",   "vendor",   "mcu"};

std::string hex(const std::vector<uint8_t>& bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        text += {' ', kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return text;
}

// One event is one line, whatever a log message holds.
std::string oneLine(const std::string& text) {
    std::string line;
    for (const char c : text) {
        if (c == '\n') {
            line += "\\n";
        } else {
            line += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
        }
    }
    return line;
}

}  // namespace

const char* nameOf(EventKind kind) { return kKindNames.at(static_cast<size_t>(kind)); }

std::string toLine(const Event& event) {
    char stamp[40];
    snprintf(stamp, sizeof stamp, "%12.6f %-9s ", static_cast<double>(event.at.count()) / 1e9,
             nameOf(event.kind));
    std::string line = stamp + event.source;
    if (!event.text.empty()) line += ": " + oneLine(event.text);
    if (!event.bytes.empty()) line += " [" + hex(event.bytes).substr(1) + "]";
    return line;
}

Trace::Trace() = default;
Trace::~Trace() = default;

std::vector<Event> Trace::events() const {
    Guard guard(boardLock());
    return events_;
}

std::vector<Event> Trace::events(EventKind kind) const {
    Guard guard(boardLock());
    std::vector<Event> found;
    for (const Event& event : events_) {
        if (event.kind == kind) found.push_back(event);
    }
    return found;
}

std::optional<CutPosition> Trace::add(EventKind kind, std::string source, std::string text,
                                      std::vector<uint8_t> bytes) {
    Scheduler::arrive();
    Guard guard(boardLock());
    cutIfDue();
    Machine* machine = poweredMachine();
    if (machine != nullptr && machine->dead()) return CutPosition::kBefore;
    const bool last = cut_ && cut_->event == count_;
    ++count_;
    if (recording_) {
        events_.push_back(
            {theScheduler().now(), kind, std::move(source), std::move(text), std::move(bytes)});
        const Event event = listeners_.empty() ? Event{} : events_.back();
        for (const auto& listener : listeners_) listener(event);
    }
    if (!last || machine == nullptr) return std::nullopt;
    due_ = cut_->position == CutPosition::kAfter;
    if (!due_) machine->losePower();
    return cut_->position;
}

uint64_t Trace::count() const {
    Guard guard(boardLock());
    return count_;
}

void Trace::cutPowerAt(PowerCut cut) {
    Guard guard(boardLock());
    cut_ = cut;
}

void Trace::cutIfDue() {
    if (!due_) return;
    due_ = false;
    if (Machine* machine = poweredMachine()) machine->losePower();
}

void Trace::addWireByte(const WireByte& byte) {
    Guard guard(boardLock());
    if (recording_) wire_.push_back(byte);
}

void Trace::onEvent(std::function<void(const Event&)> listener) {
    Guard guard(boardLock());
    listeners_.push_back(std::move(listener));
}

void Trace::setRecording(bool on) {
    Guard guard(boardLock());
    recording_ = on;
}

bool Trace::recording() const {
    Guard guard(boardLock());
    return recording_;
}

void Trace::clear() {
    Guard guard(boardLock());
    events_.clear();
    wire_.clear();
}

std::string Trace::toText() const {
    std::string text;
    for (const Event& event : events()) text += toLine(event) + "\n";
    return text;
}

void Trace::writeText(const std::filesystem::path& file) const { writeWholeFile(file, toText()); }

const char* nameOf(CutPosition position) {
    constexpr std::array<const char*, 3> kNames = {"before", "inside", "after"};
    return kNames.at(static_cast<size_t>(position));
}

}  // namespace quil::board
