#include "tools/quilctl/traces/link_spans.h"

#include <stdio.h>

#include <algorithm>
#include <utility>

#include "board/devices/uart.h"

namespace quil::tools {
namespace {

constexpr char kQueuedCounter[] = "bytes queued";
constexpr char kWrittenCounter[] = "MCU flash written", kPercentCounter[] = "MCU flash programmed";

bool hasWord(const std::string& text, const char* word) {
    return text.find(word) != std::string::npos;
}

board::Nanos byteTimeIn(const std::string& note) {
    board::LineSettings line;
    int dataBits = 0, stopBits = 0;
    if (sscanf(note.c_str(), "set to %d %d%c%d", &line.baud, &dataBits, &line.parity, &stopBits) !=
        4) {
        return board::Nanos(0);
    }
    line.dataBits = static_cast<uint8_t>(dataBits);
    line.stopBits = static_cast<uint8_t>(stopBits);
    return line.byteTime();
}

double bytesOfBlock(const ProgrammingStep& step) {
    unsigned bytes = 0;
    return step.end && sscanf(step.name.c_str(), "write %u bytes", &bytes) == 1 ? bytes : 0;
}

}  // namespace

board::Nanos LinkSpans::allOf(const Port& port, const board::Event& event) {
    return port.byteTime * static_cast<int64_t>(event.bytes.size());
}

void LinkSpans::seeNote(const board::Event& event) {
    const board::Nanos byteTime = byteTimeIn(event.text);
    if (byteTime.count() > 0) mPorts[event.source].byteTime = byteTime;
}

// What is written goes out when what was written before it has gone out.
void LinkSpans::seeTransmitted(const board::Event& event, Span& span) {
    Port& port = mPorts[event.source];
    span.from = std::max(event.at, port.txUntil);
    span.to = span.from + allOf(port, event);
    countQueued(event, port);
    port.txUntil = span.to;
    if (!mDialect) return;
    const Verdict verdict = judge();  // before the dialect sees the next write
    if (auto step = mDialect->stepOf(event.bytes, mAnswer)) {
        endStep(verdict);
        mStep = std::move(step);
        mStepFrom = span.from;
    }
    mParts.push_back(span.event.value_or(0));
    mLastByte = span.to;
}

void LinkSpans::countQueued(const board::Event& event, const Port& port) {
    if (port.byteTime.count() == 0) return;
    if (mIsQueued && mQueueEmptyAt <= event.at) {
        mSamples.push_back({kQueuedCounter, "bytes", mQueueEmptyAt, 0});
    }
    const auto waiting =
        std::max(port.txUntil - event.at, board::Nanos(0)).count() / port.byteTime.count();
    const auto bytes = static_cast<double>(waiting) + static_cast<double>(event.bytes.size());
    mSamples.push_back({kQueuedCounter, "bytes", event.at, bytes});
    mQueueEmptyAt = std::max(event.at, port.txUntil) + allOf(port, event);
    mIsQueued = true;
}

// The event is the end of what came in one go.
void LinkSpans::seeReceived(const board::Event& event, Span& span) {
    Port& port = mPorts[event.source];
    span.from = std::min(event.at, std::max(event.at - allOf(port, event), port.rxUntil));
    span.to = port.rxUntil = event.at;
    if (!mDialect) return;
    mAnswer.insert(mAnswer.end(), event.bytes.begin(), event.bytes.end());
    mParts.push_back(span.event.value_or(0));
    mLastByte = event.at;
}

void LinkSpans::seeShell(const board::Event& event) {
    if (!hasWord(event.text, "MCU_BOOT0")) return;
    if (hasWord(event.text, "echo 1 >")) enterLoader(event.at);
    if (hasWord(event.text, "echo 0 >")) leaveLoader();
}

void LinkSpans::seeMcu(const board::Event& event) {
    mChip = event.source;
    if (hasWord(event.text, "the boot loader starts")) enterLoader(event.at);
    if (!hasWord(event.text, "the application starts")) return;
    leaveLoader();
    endSession(true);
}

// A reset in the middle of a session starts the protocol anew, but not the session.
void LinkSpans::enterLoader(board::Nanos at) {
    if (mDialect) {
        endStep(judge());
    } else {
        endSession(false);
    }
    mAnswer.clear();
    mDialect = hasWord(mChip, "n32") ? n32Dialect() : stm32Dialect();
    mLastByte = at;
}

void LinkSpans::leaveLoader() {
    if (!mDialect) return;
    endStep(judge());
    mDialect.reset();
}

void LinkSpans::endStep(const Verdict& verdict) {
    const auto step = std::exchange(mStep, std::nullopt);
    mAnswer.clear();
    auto parts = std::exchange(mParts, {});
    if (!step) return;
    const std::string said = verdict.isGood ? "" : ": " + verdict.said;
    mSteps.push_back({.lane = Lane::kBootLoader,
                      .line = "",
                      .name = step->name + said,
                      .from = mStepFrom,
                      .to = std::max(mStepFrom, mLastByte),
                      .isBad = !verdict.isGood,
                      .parts = std::move(parts)});
    if (!verdict.isGood || !step->end) return;
    mBlocks[*step->end] = bytesOfBlock(*step);
    double bytes = 0;
    for (const auto& [end, size] : mBlocks) bytes += size;
    mWritten.push_back({mSteps.back().to, bytes});
}

// How much there was to write is known where the session came to its end: all that was written.
void LinkSpans::endSession(bool isWhole) {
    const double total = mWritten.empty() ? 0 : mWritten.back().bytes;
    for (const Written& written : mWritten) {
        mSamples.push_back({kWrittenCounter, "bytes", written.at, written.bytes});
        if (!isWhole || total <= 0) continue;
        mSamples.push_back({kPercentCounter, "%", written.at, 100 * written.bytes / total});
    }
    mWritten.clear();
    mBlocks.clear();
}

void LinkSpans::end(board::Nanos at) {
    leaveLoader();
    endSession(false);
    mPorts.clear();
    if (!mIsQueued) return;
    mSamples.push_back({kQueuedCounter, "bytes", std::min(mQueueEmptyAt, at), 0});
    mIsQueued = false;
}

}  // namespace quil::tools
