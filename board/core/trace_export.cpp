// The trace in the formats of waveform viewers (VCD) and timeline viewers (trace-event JSON).
#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "board/core/bytes.h"
#include "board/core/lock.h"
#include "board/core/trace.h"
#include "board/core/whole_file.h"

namespace quil::board {
namespace {

// The new level of each line that changes, by microsecond.
using Levels = std::map<int64_t, std::map<char, int>>;
constexpr char kTxLine = '!', kRxLine = '"';

int64_t micros(Nanos at) { return std::chrono::round<Micros>(at).count(); }

std::vector<int> bitsOf(const WireByte& byte) {
    std::vector<int> bits = {0};  // the start bit
    int ones = 0;
    for (int i = 0; i < byte.dataBits; ++i) {
        bits.push_back(byte.value >> i & 1);
        ones += bits.back();
    }
    if (byte.parity == 'E') bits.push_back(ones & 1);
    if (byte.parity == 'O') bits.push_back(~ones & 1);
    bits.push_back(1);  // a second stop bit is the same level
    return bits;
}

Levels levelsOf(const std::vector<WireByte>& wire) {
    Levels levels;
    levels[0] = {{kTxLine, 1}, {kRxLine, 1}};
    for (const WireByte& byte : wire) {
        const char line = byte.fromHost ? kTxLine : kRxLine;
        Nanos at = byte.start;
        for (const int bit : bitsOf(byte)) {
            // An edge at time 0 would be taken for the initial level: it moves to 1.
            levels[std::max<int64_t>(1, micros(at))][line] = bit;
            at += byte.bit;
        }
    }
    return levels;
}

std::string vcdOf(const std::vector<WireByte>& wire) {
    std::string text =
        "$timescale 1us $end\n$scope module board $end\n"
        "$var wire 1 ! mcu_tx $end\n$var wire 1 \" mcu_rx $end\n"
        "$upscope $end\n$enddefinitions $end\n";
    for (const auto& [at, changes] : levelsOf(wire)) {
        text += "#" + std::to_string(at) + "\n";
        for (const auto& [line, level] : changes) text += std::to_string(level) + line + "\n";
    }
    return text;
}

nlohmann::json jsonOf(const Event& event) {
    return {{"name", event.text.empty() ? nameOf(event.kind) : event.text},
            {"cat", nameOf(event.kind)},
            {"ph", "i"},
            {"s", "t"},
            {"ts", static_cast<double>(event.at.count()) / 1000.0},
            {"pid", 1},
            {"tid", static_cast<int>(event.kind)},
            {"args", {{"source", event.source}, {"bytes", hexOf(event.bytes)}}}};
}

}  // namespace

void Trace::writeVcd(const std::filesystem::path& file) const {
    Guard guard(boardLock());
    writeWholeFile(file, vcdOf(mWire));
}

void Trace::writeTraceEventJson(const std::filesystem::path& file) const {
    nlohmann::json root = {{"displayTimeUnit", "ms"}, {"traceEvents", nlohmann::json::array()}};
    for (const Event& event : events()) root["traceEvents"].push_back(jsonOf(event));
    // A log line may hold any bytes; JSON takes only UTF-8.
    writeWholeFile(file, root.dump(1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
}

}  // namespace quil::board
