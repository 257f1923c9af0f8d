// A viewer's trace read back: its tracks, and what is on them.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include "tools/quilctl/output/result.h"

namespace quil::tools {

struct TraceTrack {
    std::string process, name;
};

// One record, with the phases of the trace-event format: B and E begin and end a span, X is a
// whole one, b and e are an asynchronous one, i a moment, C a counter's value, s, t and f a flow.
struct TraceRecord {
    char phase;
    uint64_t track;
    int64_t at = 0, took = 0;  // ns
    std::string name = {};
    uint64_t id = 0;  // of an asynchronous span, or of a flow
    Json arguments = {};
};

struct TraceFile {
    std::map<uint64_t, TraceTrack> tracks;
    std::vector<TraceRecord> records;  // in the file's order
};

// Of JSON or of Perfetto's own format, as the content has it. Throws Failure (kBadData).
TraceFile readTraceFile(const std::string& content);

struct TraceSpan {
    std::string name;
    int64_t from, took;  // ns
};
// The spans with a duration on the tracks of this name, in the order of their beginnings.
std::vector<TraceSpan> spansOn(const TraceFile& file, const std::string& track);

// The stages that the run told. Where it told none, what it did: it connected to the MCU's boot
// loader, erased, wrote and read its flash, with the pauses between; it programmed the FPGA's
// flash; it asked the service. Empty where there was none of it.
std::vector<TraceSpan> stagesOf(const TraceFile& file);

}  // namespace quil::tools
