// An event of a board as the arguments that a viewer shows beside its span.
#pragma once

#include "board/core/trace.h"
#include "tools/quilctl/output/result.h"

namespace quil::tools {

// "event" (its number), "kind", "at" (nanoseconds), "source", "text", "bytes" (hexadecimal). What
// is no UTF-8 is hexadecimal, as "source_bytes" and "text_bytes".
Json argumentsOf(const board::Event& event, size_t number);
board::Event eventIn(const Json& arguments);          // throws Failure
board::EventKind kindNamed(const std::string& name);  // throws Failure

// The text with a mark in the place of what is no UTF-8.
std::string shownText(const std::string& text);

}  // namespace quil::tools
