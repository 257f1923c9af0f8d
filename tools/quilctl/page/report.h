// A report: the page of a served board with all that a command did on its board in it, as one file
// that asks nobody for anything.
#pragma once

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

}  // namespace quil::tools
