// Perfetto's own trace format: TrackEvents on named tracks.
#include <algorithm>
#include <map>
#include <protozero/pbf_builder.hpp>
#include <string>
#include <utility>

#include "tools/quilctl/traces/event_arguments.h"
#include "tools/quilctl/traces/perfetto_fields.h"
#include "tools/quilctl/traces/timeline.h"
#include "tools/quilctl/traces/viewer_files.h"

namespace quil::tools {
namespace {

template <typename Message>
using Builder = protozero::pbf_builder<Message>;
using board::Nanos;

constexpr uint32_t kSequence = 1;

class PerfettoTrace {
  public:
    PerfettoTrace(const std::vector<board::Event>& events, const Timeline& timeline)
        : mEvents(events), mTimeline(timeline), mFlowsOf(timeline.spans.size()) {}

    std::string bytes() {
        for (size_t i = 0; i < mTimeline.flows.size(); ++i) {
            for (const size_t span : mTimeline.flows[i]) mFlowsOf[span].push_back(i);
        }
        for (const LaneRow& lane : kLanes) addLane(lane);
        for (const Sample& sample : mTimeline.samples) addSample(sample);
        std::stable_sort(mTimed.begin(), mTimed.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        for (const auto& [at, packet] : mTimed) addPacket(packet);
        return std::move(mBytes);
    }

  private:
    void addPacket(const std::string& packet) {
        Builder<perfetto::Trace>(mBytes).add_message(perfetto::Trace::packet, packet);
    }

    void addTrack(const std::string& descriptor) {
        std::string packet;
        Builder<perfetto::TracePacket> builder(packet);
        builder.add_uint32(perfetto::TracePacket::sequenceId, kSequence);
        if (mBytes.empty()) {
            builder.add_uint32(perfetto::TracePacket::sequenceFlags, perfetto::kStateCleared);
        }
        builder.add_message(perfetto::TracePacket::trackDescriptor, descriptor);
        addPacket(packet);
    }

    // No process of an operating system: those show what is in them in an order of their own.
    uint64_t parentNamed(const std::string& name) {
        const auto [found, isNew] = mParents.try_emplace(name, mTracks + 1);
        if (!isNew) return found->second;
        std::string descriptor;
        Builder<perfetto::TrackDescriptor> builder(descriptor);
        builder.add_uint64(perfetto::TrackDescriptor::uuid, ++mTracks);
        builder.add_string(perfetto::TrackDescriptor::name, name);
        builder.add_int32(perfetto::TrackDescriptor::childOrdering, perfetto::kExplicitOrder);
        addTrack(descriptor);
        return found->second;
    }

    uint64_t addTrackIn(const std::string& where, const std::string& name,
                        const std::string* unit = nullptr) {
        const uint64_t parent = parentNamed(where);
        std::string descriptor, counter;
        Builder<perfetto::TrackDescriptor> builder(descriptor);
        builder.add_uint64(perfetto::TrackDescriptor::uuid, ++mTracks);
        builder.add_uint64(perfetto::TrackDescriptor::parent, parent);
        builder.add_string(perfetto::TrackDescriptor::name, shownText(name));
        builder.add_int32(perfetto::TrackDescriptor::siblingRank, static_cast<int>(mTracks));
        if (unit != nullptr) {
            Builder<perfetto::CounterDescriptor>(counter).add_string(
                perfetto::CounterDescriptor::unitName, *unit);
            builder.add_message(perfetto::TrackDescriptor::counter, counter);
        }
        addTrack(descriptor);
        return mTracks;
    }

    // Rows of a lane's line are tracks of the same name, which viewers show as one.
    void addLane(const LaneRow& lane) {
        std::map<std::pair<std::string, unsigned>, std::vector<size_t>> tracks;
        for (size_t i = 0; i < mTimeline.spans.size(); ++i) {
            const Span& span = mTimeline.spans[i];
            if (span.lane == lane.lane) tracks[{trackOf(span), span.row}].push_back(i);
        }
        for (auto& [track, spans] : tracks) {
            std::stable_sort(spans.begin(), spans.end(), [this](size_t a, size_t b) {
                return std::pair(at(a).from, at(b).to) < std::pair(at(b).from, at(a).to);
            });
            addSpans(spans, addTrackIn(lane.where, track.first));
        }
    }

    void addSpans(const std::vector<size_t>& spans, uint64_t track) {
        std::vector<Nanos> open;
        const auto endUntil = [&](Nanos until) {
            for (; !open.empty() && open.back() <= until; open.pop_back()) {
                add(open.back(), perfetto::EventType::kEnd, track, [](auto& /*event*/) {});
            }
        };
        for (const size_t i : spans) {
            endUntil(at(i).from);
            add(at(i).from,
                at(i).isMoment ? perfetto::EventType::kInstant : perfetto::EventType::kBegin, track,
                [this, i](auto& event) { addDetails(event, i); });
            if (!at(i).isMoment) open.push_back(at(i).to);
        }
        endUntil(Nanos::max());
    }

    void addSample(const Sample& sample) {
        const auto [found, isNew] = mCounters.try_emplace(sample.counter, 0);
        if (isNew) {
            found->second = addTrackIn(rowOf(Lane::kMcuLink).where, sample.counter, &sample.unit);
        }
        add(sample.at, perfetto::EventType::kCounter, found->second, [&](auto& event) {
            event.add_double(perfetto::TrackEvent::doubleValue, sample.value);
        });
    }

    const Span& at(size_t i) const { return mTimeline.spans[i]; }

    void addDetails(Builder<perfetto::TrackEvent>& builder, size_t i) const {
        const Span& span = at(i);
        builder.add_string(perfetto::TrackEvent::categories, rowOf(span.lane).name);
        builder.add_string(perfetto::TrackEvent::name, shownText(span.name));
        for (const size_t flow : mFlowsOf[i]) {
            const bool isLast = mTimeline.flows[flow].back() == i;
            builder.add_fixed64(
                isLast ? perfetto::TrackEvent::endedFlows : perfetto::TrackEvent::flows, flow + 1);
        }
        if (!span.event) return;
        annotate(builder, {"event", static_cast<int64_t>(*span.event)});
        for (const Argument& one : argumentsOf(mEvents[*span.event])) annotate(builder, one);
    }

    static void annotate(Builder<perfetto::TrackEvent>& event, const Argument& argument) {
        Builder<perfetto::Annotation> one(event, perfetto::TrackEvent::annotations);
        one.add_string(perfetto::Annotation::name, argument.name);
        if (const auto* number = std::get_if<int64_t>(&argument.value)) {
            one.add_int64(perfetto::Annotation::intValue, *number);
        } else {
            one.add_string(perfetto::Annotation::stringValue,
                           std::get<std::string>(argument.value));
        }
    }

    // `addMore`: fields of the TrackEvent beside these.
    template <typename AddMore>
    void add(Nanos at, perfetto::EventType type, uint64_t track, const AddMore& addMore) {
        Builder<perfetto::TracePacket> packet(mTimed.emplace_back(at, std::string()).second);
        packet.add_uint64(perfetto::TracePacket::timestamp, static_cast<uint64_t>(at.count()));
        packet.add_uint32(perfetto::TracePacket::sequenceId, kSequence);
        Builder<perfetto::TrackEvent> event(packet, perfetto::TracePacket::trackEvent);
        event.add_enum(perfetto::TrackEvent::type, static_cast<int32_t>(type));
        event.add_uint64(perfetto::TrackEvent::track, track);
        addMore(event);
    }

    const std::vector<board::Event>& mEvents;
    const Timeline& mTimeline;
    std::vector<std::vector<size_t>> mFlowsOf;  // of each span
    std::map<std::string, uint64_t> mParents, mCounters;
    uint64_t mTracks = 0;
    std::string mBytes;
    std::vector<std::pair<Nanos, std::string>> mTimed;
};

}  // namespace

std::string toPerfetto(const std::vector<board::Event>& events) {
    return PerfettoTrace(events, timelineOf(events)).bytes();
}

}  // namespace quil::tools
