// Spans of a timeline as the page draws them.
#pragma once

#include "tools/quilctl/output/result.h"
#include "tools/quilctl/traces/timeline.h"

namespace quil::tools {

// Where the page shows them, in this order.
Json laneNames();

// What may change of a span later: "id", "name", "from" and "to" in seconds, and where it is so
// "moment", "open", "bad", "flow" and "parts" (ids).
Json changeOf(int64_t id, const Span& span);

// The same with what never changes: "lane" (its place in laneNames()), "line"; of an event "kind",
// "source" and "fields" (each the name, the bytes in hexadecimal digits, the value). Of the bytes
// it has at most so many.
Json rowOf(int64_t id, const Span& span, const board::Event* event, size_t bytesMost);

// Rows of a report. Log lines that differ only in numbers are one row; bytes beyond the first of
// each event, and then spans, are left out where they would make the file too large.
struct ReportRows {
    Json rows = Json::array();
    size_t lost = 0;  // events and steps without a row
};
ReportRows reportRowsOf(const std::vector<board::Event>& events);

}  // namespace quil::tools
