#include "tools/quilctl/traces/trace_file.h"

#include <math.h>

#include <algorithm>
#include <array>
#include <protozero/pbf_message.hpp>
#include <set>
#include <tuple>
#include <utility>

#include "tools/quilctl/traces/perfetto_fields.h"
#include "tools/quilctl/traces/timeline.h"

namespace quil::tools {
namespace {

template <typename Message>
using Parts = protozero::pbf_message<Message>;

[[noreturn]] void refuseTrace(const std::string& why) {
    throw Failure(kBadData, "no trace of quilctl: " + why);
}

// What is no number of nanoseconds is refused, whatever a file says.
int64_t nanosIn(double micros) {
    constexpr double kMost = 9e15;
    if (!(fabs(micros) < kMost)) refuseTrace("a time of " + std::to_string(micros) + " us");
    return llround(micros * 1000);
}

class JsonReader {
  public:
    TraceFile read(const std::string& content) {
        const Json document = Json::parse(content, nullptr, false);
        const Json* events = &document;
        if (document.is_object() && document.contains("traceEvents")) {
            events = &document["traceEvents"];
        }
        if (!events->is_array()) refuseTrace("it has no trace events");
        try {
            for (const Json& event : *events) add(event);
        } catch (const Json::exception& error) {
            refuseTrace(error.what());
        }
        for (auto& [key, track] : mTracks) {
            const auto& [pid, tid, counter] = key;
            mFile.tracks[track] = {mProcesses[pid],
                                   counter.empty() ? mThreads[{pid, tid}] : counter};
        }
        return std::move(mFile);
    }

  private:
    void add(const Json& event) {
        const std::string phase = event.at("ph").get<std::string>();
        const auto pid = event.value("pid", 0), tid = event.value("tid", 0);
        const std::string name = event.value("name", "");
        if (phase.size() != 1) refuseTrace("a record of the phase '" + phase + "'");
        if (phase == "M") {
            if (name == "process_name") mProcesses[pid] = event.at("/args/name"_json_pointer);
            if (name == "thread_name") mThreads[{pid, tid}] = event.at("/args/name"_json_pointer);
            return;
        }
        const auto key = std::tuple(pid, tid, phase == "C" ? name : "");
        const uint64_t track = mTracks.try_emplace(key, mTracks.size() + 1).first->second;
        mFile.records.push_back({.phase = phase.front(),
                                 .track = track,
                                 .at = nanosIn(event.at("ts").get<double>()),
                                 .took = nanosIn(event.value("dur", 0.0)),
                                 .name = name,
                                 .id = event.value("id", uint64_t{0}),
                                 .arguments = event.value("args", Json::object())});
    }

    TraceFile mFile;
    std::map<std::tuple<int, int, std::string>, uint64_t> mTracks;
    std::map<int, std::string> mProcesses;
    std::map<std::pair<int, int>, std::string> mThreads;
};

class PerfettoReader {
  public:
    TraceFile read(const std::string& content) {
        try {
            for (Parts<perfetto::Trace> trace(content); trace.next();) {
                if (trace.tag() == perfetto::Trace::packet) {
                    addPacket(trace.get_view());
                } else {
                    trace.skip();
                }
            }
        } catch (const protozero::exception& error) {
            refuseTrace(error.what());
        }
        for (auto& [uuid, track] : mFile.tracks) {
            const auto parent = mFile.tracks.find(mParents[uuid]);
            if (parent != mFile.tracks.end()) track.process = parent->second.name;
        }
        return std::move(mFile);
    }

  private:
    using View = protozero::data_view;

    void addPacket(View bytes) {
        int64_t at = 0;
        View event;
        for (Parts<perfetto::TracePacket> packet(bytes); packet.next();) {
            if (packet.tag() == perfetto::TracePacket::timestamp) {
                at = static_cast<int64_t>(packet.get_uint64());
            } else if (packet.tag() == perfetto::TracePacket::trackEvent) {
                event = packet.get_view();
            } else if (packet.tag() == perfetto::TracePacket::trackDescriptor) {
                addTrack(packet.get_view());
            } else {
                packet.skip();
            }
        }
        if (!event.empty()) addEvent(event, at);
    }

    void addTrack(View bytes) {
        uint64_t uuid = 0, parent = 0;
        std::string name;
        for (Parts<perfetto::TrackDescriptor> track(bytes); track.next();) {
            switch (track.tag()) {
                case perfetto::TrackDescriptor::uuid:
                    uuid = track.get_uint64();
                    break;
                case perfetto::TrackDescriptor::parent:
                    parent = track.get_uint64();
                    break;
                case perfetto::TrackDescriptor::name:
                    name = track.get_string();
                    break;
                default:
                    track.skip();
            }
        }
        mFile.tracks[uuid].name = name;
        mParents[uuid] = parent;
    }

    void addEvent(View bytes, int64_t at) {
        TraceRecord record{.phase = 'i', .track = 0, .at = at, .arguments = Json::object()};
        std::vector<std::pair<char, uint64_t>> flows;
        for (Parts<perfetto::TrackEvent> event(bytes); event.next();) {
            switch (event.tag()) {
                case perfetto::TrackEvent::type:
                    record.phase = phaseOf(event.get_enum());
                    break;
                case perfetto::TrackEvent::track:
                    record.track = event.get_uint64();
                    break;
                case perfetto::TrackEvent::name:
                    record.name = event.get_string();
                    break;
                case perfetto::TrackEvent::doubleValue:
                    record.arguments["value"] = event.get_double();
                    break;
                case perfetto::TrackEvent::flows:
                    flows.emplace_back('t', event.get_fixed64());
                    break;
                case perfetto::TrackEvent::endedFlows:
                    flows.emplace_back('f', event.get_fixed64());
                    break;
                case perfetto::TrackEvent::annotations:
                    addAnnotation(event.get_view(), record.arguments);
                    break;
                default:
                    event.skip();
            }
        }
        mFile.records.push_back(record);
        for (const auto& [phase, id] : flows) {
            const bool isFirst = mFlows.insert(id).second;
            mFile.records.push_back(
                {isFirst && phase == 't' ? 's' : phase, record.track, at, 0, "", id});
        }
    }

    static char phaseOf(int32_t type) {
        switch (static_cast<perfetto::EventType>(type)) {
            case perfetto::EventType::kBegin:
                return 'B';
            case perfetto::EventType::kEnd:
                return 'E';
            case perfetto::EventType::kInstant:
                return 'i';
            case perfetto::EventType::kCounter:
                return 'C';
        }
        refuseTrace("an event of the type " + std::to_string(type));
    }

    static void addAnnotation(View bytes, Json& arguments) {
        std::string name;
        Json value;
        for (Parts<perfetto::Annotation> one(bytes); one.next();) {
            if (one.tag() == perfetto::Annotation::name) {
                name = one.get_string();
            } else if (one.tag() == perfetto::Annotation::stringValue) {
                value = one.get_string();
            } else if (one.tag() == perfetto::Annotation::intValue) {
                value = one.get_int64();
            } else {
                one.skip();
            }
        }
        arguments[name] = value;
    }

    TraceFile mFile;
    std::map<uint64_t, uint64_t> mParents;
    std::set<uint64_t> mFlows;
};

struct PhaseRow {
    const char* step;  // its beginning
    const char* stage;
};
// An address belongs to the reading or writing that it is of.
constexpr std::array<PhaseRow, 6> kPhases = {{{"synchronise", "MCU connected"},
                                              {"handshake", "MCU connected"},
                                              {"get", "MCU connected"},
                                              {"erase", "MCU flash erased"},
                                              {"write", "MCU flash written"},
                                              {"read", "MCU flash read"}}};

// Steps of the boot loader that follow each other are one stage, which lasts until the next.
std::vector<TraceSpan> phasesOf(const std::vector<TraceSpan>& steps) {
    std::vector<TraceSpan> phases;
    for (const TraceSpan& step : steps) {
        const auto row = std::find_if(kPhases.begin(), kPhases.end(), [&](const PhaseRow& one) {
            return step.name.rfind(one.step, 0) == 0;
        });
        if (!phases.empty()) phases.back().took = step.from - phases.back().from;
        const bool isNext =
            row != kPhases.end() && (phases.empty() || phases.back().name != row->stage);
        if (isNext) phases.push_back({row->stage, step.from, 0});
        if (!phases.empty()) phases.back().took = step.from + step.took - phases.back().from;
    }
    return phases;
}

}  // namespace

TraceFile readTraceFile(const std::string& content) {
    const size_t first = content.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) refuseTrace("it is empty");
    // Perfetto's begin with the tag of a packet, a line end.
    const bool isJson = content[first] == '{' || content[first] == '[';
    return isJson && content.front() != '\n' ? JsonReader().read(content)
                                             : PerfettoReader().read(content);
}

std::vector<TraceSpan> spansOn(const TraceFile& file, const std::string& track) {
    std::vector<TraceSpan> spans;
    std::map<std::pair<uint64_t, uint64_t>, std::vector<size_t>> open;  // by track and id
    for (const TraceRecord& record : file.records) {
        const auto found = file.tracks.find(record.track);
        if (found == file.tracks.end() || found->second.name != track) continue;
        const bool isAsync = record.phase == 'b' || record.phase == 'e';
        auto& stack = open[{record.track, isAsync ? record.id : 0}];
        if (record.phase == 'X') spans.push_back({record.name, record.at, record.took});
        if (record.phase == 'B' || record.phase == 'b') {
            stack.push_back(spans.size());
            spans.push_back({record.name, record.at, 0});
        }
        if ((record.phase == 'E' || record.phase == 'e') && !stack.empty()) {
            spans[stack.back()].took = record.at - spans[stack.back()].from;
            stack.pop_back();
        }
    }
    // At the same time, those that end first.
    std::stable_sort(spans.begin(), spans.end(), [](const TraceSpan& a, const TraceSpan& b) {
        return std::pair(a.from, a.took) < std::pair(b.from, b.took);
    });
    return spans;
}

std::vector<TraceSpan> stagesOf(const TraceFile& file) {
    const auto on = [&](Lane lane) { return spansOn(file, rowOf(lane).name); };
    auto stages = on(Lane::kStages);
    if (!stages.empty()) return stages;
    stages = phasesOf(on(Lane::kBootLoader));
    for (const TraceSpan& span :
         spansOn(file, std::string(rowOf(Lane::kFlash).name) + " /dev/mtd0")) {
        const bool isErase = span.name.rfind("erase", 0) == 0;
        stages.push_back(
            {isErase ? "FPGA flash erased" : "FPGA image written", span.from, span.took});
    }
    for (const TraceSpan& span : on(Lane::kRequests)) {
        if (span.name != kAnswered) stages.push_back(span);
    }
    std::stable_sort(stages.begin(), stages.end(),
                     [](const TraceSpan& a, const TraceSpan& b) { return a.from < b.from; });
    return stages;
}

}  // namespace quil::tools
