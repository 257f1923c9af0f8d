// An event of a board as the arguments that a viewer shows beside its span, and as JSON for those
// who watch a served board.
#pragma once

#include <stdint.h>

#include <string>
#include <variant>
#include <vector>

#include "board/core/trace.h"
#include "tools/quilctl/output/result.h"

namespace quil::tools {

struct Argument {
    const char* name;
    std::variant<int64_t, std::string> value;
};
// "kind", "at" (nanoseconds), "source", "text", "bytes" (hexadecimal; without any, it is missing).
// What is no UTF-8 is hexadecimal, as "source_bytes" and "text_bytes".
std::vector<Argument> argumentsOf(const board::Event& event);
Json documentOf(const std::vector<Argument>& arguments);
board::Event eventIn(const Json& document);           // throws Failure
board::EventKind kindNamed(const std::string& name);  // throws Failure

// The text with a mark in the place of what is no UTF-8.
std::string shownText(const std::string& text);

}  // namespace quil::tools
