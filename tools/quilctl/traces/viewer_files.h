// A board's events as files for timeline viewers. Each event is in them whole, so that the list can
// be had back.
#pragma once

#include <string>
#include <vector>

#include "board/core/trace.h"

namespace quil::tools {

// The trace-event format, in JSON: complete events on named threads, asynchronous ones where work
// overlaps, flows and counters.
std::string toTraceEventJson(const std::vector<board::Event>& events);

// The same in Perfetto's own format, which is smaller and has no limits of JSON's.
std::string toPerfetto(const std::vector<board::Event>& events);

}  // namespace quil::tools
