#include "tools/quilctl/traces/timeline.h"

#include <math.h>
#include <stdlib.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <set>
#include <utility>

#include "board/fpga/fpga.h"
#include "host/wire_frame.h"
#include "tools/quilctl/files/command_table.h"
#include "tools/quilctl/output/values.h"
#include "tools/quilctl/traces/link_spans.h"

namespace quil::tools {
namespace {

using board::Event;
using board::EventKind;
using board::Nanos;

constexpr char kFpgaPercent[] = "FPGA flash programmed";
constexpr size_t kReadHeader = 6;  // bytes on the wire before those that an SPI read returns

Lane laneOf(const Event& event) {
    switch (event.kind) {
        case EventKind::kOpen:
        case EventKind::kClose:
            return Lane::kFiles;
        case EventKind::kUartTx:
        case EventKind::kUartRx:
        case EventKind::kFrame:
            return Lane::kMcuLink;
        case EventKind::kGpio:
            return Lane::kGpio;
        case EventKind::kShell:
            return Lane::kShell;
        case EventKind::kSleep:
            return Lane::kSleeps;
        case EventKind::kLog:
            return Lane::kLog;
        case EventKind::kRequest:
            return Lane::kRequests;
        case EventKind::kSpi:
            return Lane::kSpi;
        case EventKind::kFlash:
            return Lane::kFlash;
        case EventKind::kNote:
            return event.source == kStageSource ? Lane::kStages : Lane::kBoard;
        case EventKind::kPower:
        case EventKind::kProperty:
        case EventKind::kFault:
        case EventKind::kViolation:
        case EventKind::kProbe:
        case EventKind::kVendor:
        case EventKind::kMcu:
            return Lane::kBoard;
    }
    return Lane::kBoard;
}

std::string lineOfLane(const Event& event) {
    if (event.kind == EventKind::kGpio || event.kind == EventKind::kFlash) return event.source;
    if (event.kind == EventKind::kUartTx) return "to the MCU";
    return event.kind == EventKind::kUartRx ? "from the MCU" : "";
}

std::string nameOfCommand(uint32_t command) {
    for (const CommandRow& row : commandTable()) {
        if (row.first == command && row.name[0] != '\0') return row.name;
    }
    return hex32(command);
}

// Without the source where the track has it, or all of its spans have the same.
std::string nameOfSpan(const Event& event) {
    std::string text = event.text;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    if (event.kind == EventKind::kRequest && text != kAnswered && event.bytes.size() >= 4) {
        return text + " " + nameOfCommand(host::load32(event.bytes, 0));
    }
    const Lane lane = laneOf(event);
    if (lane == Lane::kFiles) return std::string(nameOf(event.kind)) + " " + event.source;
    if (lane != Lane::kBoard) return text.empty() ? event.source : text;
    return event.source + (text.empty() ? "" : ": " + text);
}

Nanos nanosOf(double seconds) { return Nanos(llround(seconds * 1e9)); }

bool endsOperation(const Event& event) {
    const std::set<std::string> ends = {"erased", "erase failed", "programmed",
                                        "programming failed"};
    return ends.count(event.text) != 0;
}

bool begins(const std::string& text, const char* beginning) {
    return text.rfind(beginning, 0) == 0;
}

std::string labelIn(const std::string& text) {
    const size_t at = text.find("label=");
    return at == std::string::npos ? "" : text.substr(at, text.find(' ', at) - at);
}

}  // namespace

class TimelineBuilder {
  public:
    void see(const Event& event) {
        const size_t i = mForgotten + mTimeline.spans.size();
        mTimeline.spans.push_back(
            {.lane = laneOf(event),
             .line = lineOfLane(event),
             .name = nameOfSpan(event),
             .from = event.at,
             .to = event.at,
             .isMoment = true,
             .isBad = event.kind == EventKind::kFault || event.kind == EventKind::kViolation,
             .event = i});
        mChanged.push_back(i);
        act(event, i);
        mNow = event.at;
    }

    Timeline finish() {
        endAll(mNow);
        for (const auto& [request, flow] : mFlows) {
            if (flow.size() > 1) mTimeline.flows.push_back(flow);
        }
        const auto steps = mLink.takeSteps();
        mTimeline.spans.insert(mTimeline.spans.end(), steps.begin(), steps.end());
        setRows();
        std::stable_sort(mTimeline.samples.begin(), mTimeline.samples.end(),
                         [](const Sample& a, const Sample& b) { return a.at < b.at; });
        return std::move(mTimeline);
    }

    // What is new or has changed since the last time.
    LiveTimeline::Changes takeChanges() {
        LiveTimeline::Changes changes;
        std::sort(mChanged.begin(), mChanged.end());
        mChanged.erase(std::unique(mChanged.begin(), mChanged.end()), mChanged.end());
        for (const size_t i : mChanged) changes.emplace_back(i, mTimeline.spans[i - mForgotten]);
        mChanged.clear();
        for (Span& step : mLink.takeSteps()) changes.emplace_back(--mLastStep, std::move(step));
        return changes;
    }

    // After takeChanges(): all but so many of the last spans, and the samples.
    void forgetBut(size_t count) {
        mTimeline.samples.clear();
        if (mTimeline.spans.size() <= count) return;
        const size_t forgets = mTimeline.spans.size() - count;
        mTimeline.spans.erase(mTimeline.spans.begin(),
                              mTimeline.spans.begin() + static_cast<ptrdiff_t>(forgets));
        mForgotten += forgets;
        mFlows.erase(mFlows.begin(), mFlows.lower_bound(mForgotten));
    }
    size_t size() const { return mTimeline.spans.size(); }

  private:
    void act(const Event& event, size_t i) {
        switch (event.kind) {
            case EventKind::kPower:
                // Board time begins anew with the power.
                return endAll(begins(event.text, "on") ? mNow : event.at);
            case EventKind::kOpen:
                mFiles[event.source] = i;
                return;
            case EventKind::kClose:
                return closeFile(event);
            case EventKind::kUartTx:
                mLink.seeTransmitted(event, span(i));
                mLastWrite = i;
                return extend(i, span(i).to);
            case EventKind::kUartRx:
                return received(event, i);
            case EventKind::kFrame:
                return frame(event, i);
            case EventKind::kGpio:
                return replace(mLevels, event, i);
            case EventKind::kShell:
                mLink.seeShell(event);
                mShell = i;
                return extend(i, event.at);
            case EventKind::kSleep:
                return sleep(event, i);
            case EventKind::kRequest:
                return request(event, i);
            case EventKind::kSpi:
                return transfer(event, i);
            case EventKind::kFlash:
                return flash(event, i);
            case EventKind::kNote:
                mLink.seeNote(event);
                return stage(event, i);
            case EventKind::kMcu:
                endOperation(event.source, event.at);
                return mLink.seeMcu(event);
            case EventKind::kLog:
            case EventKind::kProperty:
            case EventKind::kFault:
            case EventKind::kViolation:
            case EventKind::kProbe:
            case EventKind::kVendor:
                return;
        }
    }

    // A span that is forgotten may be changed all the same.
    Span& span(size_t i) {
        if (i < mForgotten) return mNone;
        mChanged.push_back(i);
        return mTimeline.spans[i - mForgotten];
    }
    void extend(size_t i, Nanos to) {
        Span& one = span(i);
        one.isMoment = one.isOpen = false;
        one.to = std::max(one.from, to);
    }
    void open(size_t i, Nanos at) {
        extend(i, at);
        span(i).isOpen = true;
    }
    void join(size_t i, size_t cause) {
        mFlows[cause].push_back(i);
        span(i).flow = cause;
    }

    // Files that nobody closes are moments: how long they are in use is not known.
    void closeFile(const Event& event) {
        const auto file = mFiles.find(event.source);
        if (file == mFiles.end()) return;
        extend(file->second, event.at);
        span(file->second).name = event.source;
        mFiles.erase(file);
    }

    void received(const Event& event, size_t i) {
        mLink.seeReceived(event, span(i));
        extend(i, span(i).to);
        const auto operations = mOperations;
        for (const auto& [source, operation] : operations) {
            if (source != board::kFlashDevice) endOperation(source, span(i).from);
        }
        if (mAwaitsBytes) join(i, *mAwaitsBytes);
        mAwaitsBytes.reset();
    }

    // A request's frame lasts until the answer to it, which has the same label.
    void frame(const Event& event, size_t i) {
        const std::string label = labelIn(event.text);
        extend(i, event.at);
        if (begins(event.text, "request")) {
            mFrames[label] = i;
            const size_t cause = mRequest.value_or(i);
            if (mLastWrite) join(*mLastWrite, cause);
            join(i, cause);
            mLastWrite.reset();
            return;
        }
        const auto asked = mFrames.find(label);
        if (asked == mFrames.end()) return;
        extend(asked->second, event.at);
        const auto flow = mFlows.find(span(asked->second).flow.value_or(i));
        if (flow != mFlows.end() && flow->second.back() == asked->second) {
            mAwaitsBytes = flow->first;
            join(i, flow->first);
        }
        mFrames.erase(asked);
    }

    void replace(std::map<std::string, size_t>& open, const Event& event, size_t i) {
        const auto before = open.find(event.source);
        if (before != open.end()) extend(before->second, event.at);
        open[event.source] = i;
        this->open(i, event.at);
    }

    void sleep(const Event& event, size_t i) {
        extend(i, event.at + nanosOf(strtod(event.text.c_str(), nullptr)));
    }

    void request(const Event& event, size_t i) {
        extend(i, event.at);
        if (event.text != kAnswered) {
            if (mRequest) span(*mRequest).isOpen = false;
            open(i, event.at);
            join(i, i);
            mRequest = i;
        } else if (mRequest) {
            extend(*mRequest, event.at);
            join(i, *mRequest);
            mRequest.reset();
        }
    }

    // The event is the end of the transfer.
    void transfer(const Event& event, size_t i) {
        const size_t header = begins(event.text, "read") ? kReadHeader : 0;
        const Nanos took =
            board::Fpga::kSpiByte * static_cast<int64_t>(event.bytes.size() + header);
        span(i).from = std::max(event.at - took, Nanos(0));
        extend(i, event.at);
    }

    void flash(const Event& event, size_t i) {
        if (endsOperation(event)) {
            const bool isWritten = event.text == "programmed";
            if (isWritten) mTimeline.samples.push_back({kFpgaPercent, "%", event.at, 100});
            return endOperation(event.source, event.at);
        }
        if (event.source == board::kFlashDevice && begins(event.text, "program")) {
            mTimeline.samples.push_back({kFpgaPercent, "%", event.at, 0});
        }
        replace(mOperations, event, i);
        mShellOf.erase(event.source);
        if (mShell && span(*mShell).from == event.at) mShellOf[event.source] = *mShell;
    }

    // The command that started an operation of a flash lasts as long.
    void endOperation(const std::string& source, Nanos at) {
        const auto operation = mOperations.find(source);
        if (operation == mOperations.end()) return;
        extend(operation->second, at);
        if (const auto shell = mShellOf.find(source); shell != mShellOf.end()) {
            extend(shell->second, at);
            mShellOf.erase(shell);
        }
        mOperations.erase(operation);
    }

    // "network, 0.860000000 s: ok": told at its end.
    void stage(const Event& event, size_t i) {
        const size_t comma = event.text.rfind(", ", event.text.find(" s: "));
        if (span(i).lane != Lane::kStages || comma == std::string::npos) return;
        const Nanos took = nanosOf(strtod(event.text.c_str() + comma + 2, nullptr));
        const size_t verdict = event.text.find(": ", comma);
        const bool isOk =
            verdict == std::string::npos || begins(event.text.substr(verdict), ": ok");
        span(i).name = event.text.substr(0, comma) + (isOk ? "" : event.text.substr(verdict));
        span(i).isBad = !isOk;
        span(i).from = std::max(event.at - took, Nanos(0));
        extend(i, event.at);
    }

    // With the power, or with the list.
    void endAll(Nanos at) {
        for (const auto& [source, i] : mLevels) extend(i, at);
        const auto operations = mOperations;
        for (const auto& [source, i] : operations) endOperation(source, at);
        if (mRequest) extend(*mRequest, at);
        mLink.end(at);
        const size_t next = mForgotten + mTimeline.spans.size();
        for (size_t i = std::max(mPoweredAt, mForgotten); i < next; ++i) {
            if (mTimeline.spans[i - mForgotten].to <= at) continue;
            span(i).to = at;
            span(i).from = std::min(span(i).from, at);
        }
        mPoweredAt = next;
        mLevels.clear();
        mFiles.clear();
        mFrames.clear();
        mShellOf.clear();
        mRequest.reset();
        mShell.reset();
        mLastWrite.reset();
        mAwaitsBytes.reset();
    }

    // Outer spans first: each goes into the first row where it is inside of another, or of none.
    void setRows() {
        std::vector<Span>& spans = mTimeline.spans;
        std::vector<size_t> order(spans.size());
        std::iota(order.begin(), order.end(), 0);
        std::stable_sort(order.begin(), order.end(), [&spans](size_t a, size_t b) {
            return std::pair(spans[a].from, spans[b].to) < std::pair(spans[b].from, spans[a].to);
        });
        std::map<std::string, std::vector<std::vector<Nanos>>> tracks;  // ends of what is open
        for (const size_t i : order) {
            if (spans[i].isMoment) continue;
            auto& rows = tracks[trackOf(spans[i])];
            for (unsigned row = 0;; ++row) {
                if (row == rows.size()) rows.emplace_back();
                auto& open = rows[row];
                while (!open.empty() && open.back() <= spans[i].from) open.pop_back();
                if (!open.empty() && open.back() < spans[i].to) continue;
                open.push_back(spans[i].to);
                spans[i].row = row;
                break;
            }
        }
    }

    Timeline mTimeline;
    Span mNone{};
    Nanos mNow{0};
    size_t mForgotten = 0;  // so many spans
    size_t mPoweredAt = 0;  // the first span since the power came
    int64_t mLastStep = 0;
    std::vector<size_t> mChanged;
    LinkSpans mLink{mTimeline.samples};
    std::map<std::string, size_t> mFiles, mFrames, mLevels, mOperations, mShellOf;
    std::map<size_t, std::vector<size_t>> mFlows;  // by their first cause
    std::optional<size_t> mRequest, mShell, mLastWrite, mAwaitsBytes;
};

const LaneRow& rowOf(Lane lane) { return kLanes.at(static_cast<size_t>(lane)); }

std::string trackOf(const Span& span) {
    const std::string lane = rowOf(span.lane).name;
    return span.line.empty() ? lane : lane + " " + span.line;
}

Timeline timelineOf(const std::vector<Event>& events) {
    TimelineBuilder builder;
    for (const Event& event : events) builder.see(event);
    return builder.finish();
}

LiveTimeline::LiveTimeline(size_t keeps)
    : mKeeps(keeps), mBuilder(std::make_unique<TimelineBuilder>()) {}

LiveTimeline::~LiveTimeline() = default;

LiveTimeline::Changes LiveTimeline::see(const board::Event& event) {
    mBuilder->see(event);
    Changes changes = mBuilder->takeChanges();
    if (mBuilder->size() > 2 * mKeeps) mBuilder->forgetBut(mKeeps);
    return changes;
}

}  // namespace quil::tools
