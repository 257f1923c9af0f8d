// The fields of Perfetto's trace format that are written and read here, with the numbers of
// protos/perfetto/trace/ (trace.proto, trace_packet.proto, track_event/*.proto), which Perfetto
// promises to keep.
#pragma once

#include <protozero/types.hpp>

namespace quil::tools::perfetto {

enum class Trace : protozero::pbf_tag_type { packet = 1 };

enum class TracePacket : protozero::pbf_tag_type {
    timestamp = 8,
    sequenceId = 10,
    trackEvent = 11,
    sequenceFlags = 13,
    trackDescriptor = 60
};
inline constexpr uint32_t kStateCleared = 1;  // of sequenceFlags

enum class TrackDescriptor : protozero::pbf_tag_type {
    uuid = 1,
    name = 2,
    parent = 5,
    counter = 8,
    childOrdering = 11,
    siblingRank = 12
};
inline constexpr int32_t kExplicitOrder = 3;  // of childOrdering

enum class CounterDescriptor : protozero::pbf_tag_type { unitName = 6 };

enum class TrackEvent : protozero::pbf_tag_type {
    annotations = 4,
    type = 9,
    track = 11,
    categories = 22,
    name = 23,
    doubleValue = 44,
    flows = 47,
    endedFlows = 48
};
enum class EventType : int32_t { kBegin = 1, kEnd = 2, kInstant = 3, kCounter = 4 };

enum class Annotation : protozero::pbf_tag_type { intValue = 4, stringValue = 6, name = 10 };

}  // namespace quil::tools::perfetto
