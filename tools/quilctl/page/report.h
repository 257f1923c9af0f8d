// A report: the page of a served board with all that a command did on its board in it, as one file
// that asks nobody for anything.
#pragma once

#include <set>
#include <span>
#include <string>
#include <vector>

#include "tools/quilctl/output/result.h"
#include "tools/quilctl/session/recording.h"

namespace quil::tools {

struct Reported {
    const std::string& commandLine;
    const Result& result;
    const std::vector<Failure>& failures;
};

void writeReport(const Recording& recording, const Reported& reported);  // throws Failure
std::string reportOf(const Recording& recording, const Reported& reported);

// The partition's blocks, as the command screen show answers, and its picture.
Json shownScreenOf(std::span<const uint8_t> partition);

// Kinds of events that a page shows.
const std::set<std::string>& shownKinds();

// Rows of the timeline: seconds, kind, source, text, bytes as hexadecimal digits, and the seconds
// of its end. Log lines that differ only in numbers are one row; bytes beyond the first of each
// event, and then events, are left out where they would make the file too large.
struct ReportRows {
    Json rows = Json::array();
    size_t lost = 0;  // events without a row
};
ReportRows reportRowsOf(const std::vector<board::Event>& events);

}  // namespace quil::tools
