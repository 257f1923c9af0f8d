// The trace-event format of timeline viewers ("Trace Event Format", the Catapult project).
#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "tools/quilctl/traces/event_arguments.h"
#include "tools/quilctl/traces/timeline.h"
#include "tools/quilctl/traces/viewer_files.h"

namespace quil::tools {
namespace {

struct ThreadId {
    int process, thread;
};

double microsOf(board::Nanos time) { return static_cast<double>(time.count()) / 1000.0; }

class JsonTrace {
  public:
    JsonTrace(const std::vector<board::Event>& events, const Timeline& timeline)
        : mEvents(events), mTimeline(timeline) {}

    std::string text() {
        nameThreads();
        for (const Span& span : mTimeline.spans) {
            if (span.row > 0) mOverlapping.insert(trackOf(span));
        }
        for (size_t i = 0; i < mTimeline.spans.size(); ++i) addSpan(mTimeline.spans[i], i);
        for (size_t i = 0; i < mTimeline.flows.size(); ++i) addFlow(mTimeline.flows[i], i);
        for (const Sample& sample : mTimeline.samples) {
            add(mCounted, {{"ph", "C"},
                           {"name", sample.counter},
                           {"ts", microsOf(sample.at)},
                           {"pid", processOf(rowOf(Lane::kMcuLink).where)},
                           {"args", {{sample.unit, sample.value}}}});
        }
        // Outer spans before inner ones.
        std::stable_sort(mTimed.begin(), mTimed.end(), [](const Json& a, const Json& b) {
            return std::pair(a["ts"].get<double>(), -a.value("dur", 0.0)) <
                   std::pair(b["ts"].get<double>(), -b.value("dur", 0.0));
        });
        std::string all = "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[";
        const char* separator = "\n";
        for (const auto* part : {&mNames, &mTimed, &mCounted}) {
            for (const Json& one : *part) {
                all.append(separator).append(one.dump());
                separator = ",\n";
            }
        }
        return all + "\n]}\n";
    }

  private:
    static void add(std::vector<Json>& part, Json what) { part.push_back(std::move(what)); }

    int processOf(const std::string& name) {
        const auto [found, isNew] =
            mProcesses.try_emplace(name, static_cast<int>(mProcesses.size()) + 1);
        if (isNew) addName("process", found->second, 0, name, found->second);
        return found->second;
    }

    void nameThreads() {
        for (const LaneRow& lane : kLanes) {
            for (const Span& span : mTimeline.spans) {
                if (span.lane == lane.lane) nameThread(trackOf(span), lane.where);
            }
        }
    }

    void nameThread(const std::string& track, const std::string& where) {
        if (mThreads.count(track) != 0) return;
        const ThreadId id{processOf(where), static_cast<int>(mThreads.size()) + 1};
        mThreads[track] = id;
        addName("thread", id.process, id.thread, track, id.thread);
    }

    void addName(const std::string& what, int process, int thread, const std::string& name,
                 int place) {
        const Json ids = {{"ph", "M"}, {"pid", process}, {"tid", thread}};
        Json named = ids, placed = ids;
        named.update({{"name", what + "_name"}, {"args", {{"name", shownText(name)}}}});
        placed.update({{"name", what + "_sort_index"}, {"args", {{"sort_index", place}}}});
        add(mNames, std::move(named));
        add(mNames, std::move(placed));
    }

    Json commonOf(const Span& span, board::Nanos at) const {
        const ThreadId id = mThreads.at(trackOf(span));
        return {{"cat", rowOf(span.lane).name},
                {"name", shownText(span.name)},
                {"ts", microsOf(at)},
                {"pid", id.process},
                {"tid", id.thread}};
    }

    void addSpan(const Span& span, size_t number) {
        Json one = commonOf(span, span.from);
        if (span.event) {
            one["args"] = {{"event", *span.event}};
            one["args"].update(documentOf(argumentsOf(mEvents[*span.event])));
        }
        if (span.isMoment) {
            one.update({{"ph", "i"}, {"s", "t"}});
        } else if (mOverlapping.count(trackOf(span)) == 0) {
            one.update({{"ph", "X"}, {"dur", microsOf(span.to - span.from)}});
        } else {
            Json end = commonOf(span, span.to);
            end.update({{"ph", "e"}, {"id", number}});
            one.update({{"ph", "b"}, {"id", number}});
            add(mTimed, std::move(one));
            return add(mTimed, std::move(end));
        }
        add(mTimed, std::move(one));
    }

    void addFlow(const std::vector<size_t>& flow, size_t number) {
        for (size_t i = 0; i < flow.size(); ++i) {
            const Span& span = mTimeline.spans[flow[i]];
            Json step = commonOf(span, span.from);
            const char* phase = i == 0 ? "s" : i + 1 == flow.size() ? "f" : "t";
            step.update({{"ph", phase}, {"cat", "flow"}, {"name", "request"}, {"id", number}});
            step["bp"] = "e";  // it belongs to the span that is there, not to the next one
            add(mTimed, std::move(step));
        }
    }

    const std::vector<board::Event>& mEvents;
    const Timeline& mTimeline;
    std::map<std::string, int> mProcesses;
    std::map<std::string, ThreadId> mThreads;
    std::set<std::string> mOverlapping;
    std::vector<Json> mNames, mTimed, mCounted;
};

}  // namespace

std::string toTraceEventJson(const std::vector<board::Event>& events) {
    return JsonTrace(events, timelineOf(events)).text();
}

}  // namespace quil::tools
