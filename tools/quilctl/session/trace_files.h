// Where the trace of a board goes, and in which format.
#pragma once

#include <string>

#include "board/core/trace.h"

namespace quil::tools {

struct TraceTarget {
    std::string (*render)(const board::Trace&) = nullptr;  // null: the format is not known
    std::string file;                                      // "-": standard output
};

// "FORMAT:FILE" with text, json, pftrace or vcd; a FILE whose name ends in .txt, .json, .pftrace or
// .vcd; "-", which is text.
TraceTarget traceTargetOf(const std::string& name);

}  // namespace quil::tools
