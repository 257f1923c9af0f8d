#include "tools/quilctl/session/trace_files.h"

#include <array>
#include <string_view>

#include "tools/quilctl/traces/viewer_files.h"

namespace quil::tools {
namespace {

struct TraceFormat {
    std::string_view prefix, ending;
    std::string (*render)(const board::Trace&);
};

std::string asText(const board::Trace& trace) { return trace.toText(); }
std::string asJson(const board::Trace& trace) { return toTraceEventJson(trace.events()); }
std::string asPerfetto(const board::Trace& trace) { return toPerfetto(trace.events()); }
std::string asVcd(const board::Trace& trace) { return trace.toVcd(); }

constexpr std::array<TraceFormat, 4> kFormats = {{
    {"text:", ".txt", asText},
    {"json:", ".json", asJson},
    {"pftrace:", ".pftrace", asPerfetto},
    {"vcd:", ".vcd", asVcd},
}};

bool endsWith(std::string_view text, std::string_view ending) {
    return text.size() > ending.size() && text.substr(text.size() - ending.size()) == ending;
}

}  // namespace

TraceTarget traceTargetOf(const std::string& name) {
    if (name == "-") return {asText, name};
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
