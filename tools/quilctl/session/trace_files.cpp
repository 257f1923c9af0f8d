#include "tools/quilctl/session/trace_files.h"

#include <array>
#include <string_view>

namespace quil::tools {
namespace {

struct TraceFormat {
    std::string_view prefix, ending;
    std::string (board::Trace::*render)() const;
};
constexpr std::array<TraceFormat, 3> kFormats = {{
    {"text:", ".txt", &board::Trace::toText},
    {"json:", ".json", &board::Trace::toTraceEventJson},
    {"vcd:", ".vcd", &board::Trace::toVcd},
}};

bool endsWith(std::string_view text, std::string_view ending) {
    return text.size() > ending.size() && text.substr(text.size() - ending.size()) == ending;
}

}  // namespace

TraceTarget traceTargetOf(const std::string& name) {
    if (name == "-") return {&board::Trace::toText, name};
    for (const TraceFormat& format : kFormats) {
        if (name.rfind(format.prefix, 0) != 0) continue;
        const std::string file = name.substr(format.prefix.size());
        return file.empty() ? TraceTarget{} : TraceTarget{format.render, file};
    }
    for (const TraceFormat& format : kFormats) {
        if (endsWith(name, format.ending)) return {format.render, name};
    }
    return {};
}

}  // namespace quil::tools
