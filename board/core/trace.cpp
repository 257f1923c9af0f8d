#include "board/core/trace.h"

#include <stdio.h>

#include "board/core/bytes.h"
#include "board/core/lock.h"
#include "board/core/power.h"
#include "board/core/scheduler.h"

namespace quil::board {
namespace {

// Escapes control characters, so that an event is one line whatever a log message contains.
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

const char* nameOf(EventKind kind) {
    switch (kind) {
        case EventKind::kPower:
            return "power";
        case EventKind::kOpen:
            return "open";
        case EventKind::kClose:
            return "close";
        case EventKind::kUartTx:
            return "uart-tx";
        case EventKind::kUartRx:
            return "uart-rx";
        case EventKind::kFrame:
            return "frame";
        case EventKind::kGpio:
            return "gpio";
        case EventKind::kShell:
            return "shell";
        case EventKind::kSleep:
            return "sleep";
        case EventKind::kLog:
            return "log";
        case EventKind::kRequest:
            return "request";
        case EventKind::kProperty:
            return "property";
        case EventKind::kFault:
            return "fault";
        case EventKind::kViolation:
            return "violation";
        case EventKind::kNote:
            return "note";
        case EventKind::kProbe:
            return "probe";
        case EventKind::kSpi:
            return "spi";
        case EventKind::kFlash:
            return "flash";
        case EventKind::kVendor:
            return "vendor";
        case EventKind::kMcu:
            return "mcu";
    }
    return "";
}

std::string toLine(const Event& event) {
    char stamp[40];
    snprintf(stamp, sizeof(stamp), "%12.6f %-9s ", static_cast<double>(event.at.count()) / 1e9,
             nameOf(event.kind));
    std::string line = stamp + event.source;
    if (!event.text.empty()) line += ": " + oneLine(event.text);
    if (!event.bytes.empty()) line += " [" + hexOf(event.bytes) + "]";
    return line;
}

Trace::Trace(const Scheduler& scheduler, Power& power) : mScheduler(scheduler), mPower(power) {}
Trace::~Trace() = default;

std::vector<Event> Trace::events() const {
    Guard guard(boardLock());
    return mEvents;
}

std::vector<Event> Trace::events(EventKind kind) const {
    Guard guard(boardLock());
    std::vector<Event> found;
    for (const Event& event : mEvents) {
        if (event.kind == kind) found.push_back(event);
    }
    return found;
}

void Trace::record(Event event) {
    if (!mRecording) return;
    mEvents.push_back(std::move(event));
    if (mListeners.empty()) return;
    const Event copy = mEvents.back();
    for (const auto& listener : mListeners) listener(copy);
}

std::optional<CutPosition> Trace::add(EventKind kind, std::string source, std::string text,
                                      std::vector<uint8_t> bytes) {
    Scheduler::arrive();
    Guard guard(boardLock());
    cutIfDue();
    if (mPower.isCut()) return CutPosition::kBefore;
    if (!mPower.isOn()) return std::nullopt;
    if (mProbe) mProbe({mCount, CutPosition::kBefore}, {});
    const bool last = mCut && mCut->event == mCount;
    ++mCount;
    mDue = mProbe != nullptr;
    record({mScheduler.now(), kind, std::move(source), std::move(text), std::move(bytes)});
    if (!last) return std::nullopt;
    mDue = mCut->position == CutPosition::kAfter;
    if (!mDue) mPower.cut();
    return mCut->position;
}

void Trace::remark(EventKind kind, std::string source, std::string text,
                   std::vector<uint8_t> bytes) {
    Guard guard(boardLock());
    if (!mPower.isOn()) return;
    record({mScheduler.now(), kind, std::move(source), std::move(text), std::move(bytes)});
}

uint64_t Trace::count() const {
    Guard guard(boardLock());
    return mCount;
}

void Trace::cutPowerAt(PowerCut cut) {
    Guard guard(boardLock());
    mCut = cut;
}

void Trace::cutIfDue() {
    if (!cutIsDue()) return;
    Guard guard(boardLock());
    if (const char* why = mWhy.exchange(nullptr)) {
        if (!mPower.isOn()) return;
        record({mScheduler.now(), EventKind::kPower, "board", why, {}});
        return mPower.cut();
    }
    if (!mDue.exchange(false)) return;
    if (mProbe) return mProbe({mCount - 1, CutPosition::kAfter}, {});
    if (mPower.isOn()) mPower.cut();
}

void Trace::cutSoon(const char* why) { mWhy = why; }

void Trace::probeCuts(CutProbe probe) {
    Guard guard(boardLock());
    if (mProbe) cutIfDue();
    mProbe = std::move(probe);
}

void Trace::probeOperation(const std::function<void(Store&, CutPosition, Tear)>& operate) {
    if (!mProbe) return;
    mDue = false;
    const auto probe = [&](CutPosition position, unsigned where) {
        mProbe({mCount - 1, position, where}, [&](Store& store) {
            operate(store, position, {mCount, where});
        });
    };
    for (unsigned where = 0; where < kTears; ++where) probe(CutPosition::kInside, where);
    probe(CutPosition::kAfter, 0);
}

void Trace::addWireByte(const WireByte& byte) {
    Guard guard(boardLock());
    if (mRecording) mWire.push_back(byte);
}

void Trace::addSpiTransfer(SpiTransfer transfer) {
    Guard guard(boardLock());
    if (mRecording) mSpi.push_back(std::move(transfer));
}

void Trace::onEvent(std::function<void(const Event&)> listener) {
    Guard guard(boardLock());
    mListeners.push_back(std::move(listener));
}

size_t Trace::listeners() const {
    Guard guard(boardLock());
    return mListeners.size();
}

void Trace::keepListeners(size_t first) {
    Guard guard(boardLock());
    if (first < mListeners.size()) mListeners.resize(first);
}

void Trace::setRecording(bool on) {
    Guard guard(boardLock());
    mRecording = on;
}

bool Trace::recording() const {
    Guard guard(boardLock());
    return mRecording;
}

void Trace::clear() {
    Guard guard(boardLock());
    mEvents.clear();
    mWire.clear();
    mSpi.clear();
    for (const auto& clearRecord : mOnClear) clearRecord();
}

void Trace::onClear(std::function<void()> clearRecord) {
    Guard guard(boardLock());
    mOnClear.push_back(std::move(clearRecord));
}

std::string Trace::toText() const {
    std::string text;
    for (const Event& event : events()) text += toLine(event) + "\n";
    return text;
}

const char* nameOf(CutPosition position) {
    switch (position) {
        case CutPosition::kBefore:
            return "before";
        case CutPosition::kInside:
            return "inside";
        case CutPosition::kAfter:
            return "after";
    }
    return "";
}

}  // namespace quil::board
