// The trace in the formats of waveform viewers (VCD) and timeline viewers (trace-event JSON).
#include <algorithm>
#include <array>
#include <map>
#include <nlohmann/json.hpp>

#include "board/core/bytes.h"
#include "board/core/lock.h"
#include "board/core/trace.h"

namespace quil::board {
namespace {

// The level of each line that changes, by nanosecond of the file.
using Levels = std::map<int64_t, std::map<char, int>>;

struct Wire {
    char id;
    const char* name;
    const char* direction;
    bool fromHost;
};
constexpr std::array<Wire, 2> kWires = {
    {{'!', "mcu_tx", "host to MCU", true}, {'"', "mcu_rx", "MCU to host", false}}};

// A reader takes the first level of a line for its initial one, so that an edge at once would be
// none: the lines are idle for so long before the board's time 0. And as long after the last byte,
// which a reader would not see the end of.
constexpr Nanos kIdle = std::chrono::milliseconds(1);

constexpr int64_t kSecond = 1'000'000'000;

int64_t timeInFile(Nanos at) { return (at + kIdle).count(); }

// Where bit `number` of a byte begins. Multiplied first: no rounding adds up.
Nanos startOfBit(const WireByte& byte, size_t number) {
    return byte.start + Nanos(kSecond * static_cast<int64_t>(number) / byte.baud);
}

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

Levels levelsOf(const std::vector<WireByte>& bytes) {
    Levels levels;
    Nanos end{0};
    for (const Wire& wire : kWires) {
        levels[0][wire.id] = 1;
        int level = 1;
        for (const WireByte& byte : bytes) {
            if (byte.fromHost != wire.fromHost || byte.baud <= 0) continue;
            const std::vector<int> bits = bitsOf(byte);
            for (size_t i = 0; i < bits.size(); ++i) {
                if (bits[i] == level) continue;
                level = bits[i];
                levels[timeInFile(startOfBit(byte, i))][wire.id] = level;
            }
            end = std::max(end, startOfBit(byte, bits.size()));
        }
    }
    levels[timeInFile(end + kIdle)];
    return levels;
}

std::string modeOf(const WireByte& byte) {
    return std::to_string(byte.baud) + " " + std::to_string(byte.dataBits) + byte.parity +
           std::to_string(byte.stopBits);
}

const char* parityName(char parity) {
    return parity == 'E' ? "even" : parity == 'O' ? "odd" : "none";
}

// The largest of 1, 2, 5, 10, .. that leaves a reader 16 samples of each bit: one sample for each
// nanosecond would be more than it needs.
int64_t downsampleFor(int baud) {
    const int64_t most = std::max<int64_t>(kSecond / (int64_t{16} * baud), 1);
    int64_t decade = 1;
    while (decade * 10 <= most) decade *= 10;
    return decade * (most >= decade * 5 ? 5 : most >= decade * 2 ? 2 : 1);
}

std::string decoderFor(const Wire& wire, const WireByte& byte) {
    return "sigrok-cli -I vcd:downsample=" + std::to_string(downsampleFor(byte.baud)) +
           " -P uart:rx=" + wire.name + ":baudrate=" + std::to_string(byte.baud) +
           ":data_bits=" + std::to_string(byte.dataBits) + ":parity=" + parityName(byte.parity) +
           ":stop_bits=" + std::to_string(byte.stopBits) + " -A uart=rx-data -i FILE";
}

std::string comment(const std::string& text) { return "$comment " + text + " $end\n"; }

// How to decode a wire: its settings, each with the time of its first byte.
std::string settingsOf(const Wire& wire, const std::vector<WireByte>& bytes) {
    std::string text, mode;
    for (const WireByte& byte : bytes) {
        if (byte.fromHost != wire.fromHost || byte.baud <= 0 || modeOf(byte) == mode) continue;
        mode = modeOf(byte);
        text +=
            comment(std::string(wire.name) + " from #" + std::to_string(timeInFile(byte.start)) +
                    ": UART " + mode + ": " + decoderFor(wire, byte));
    }
    return text;
}

std::string headerOf(const std::vector<WireByte>& bytes) {
    std::string text = comment("the board's time 0 is #" + std::to_string(timeInFile(Nanos(0))));
    for (const Wire& wire : kWires) {
        text += comment(std::string(wire.name) + ": " + wire.direction) + settingsOf(wire, bytes);
    }
    text += "$timescale 1ns $end\n$scope module board $end\n";
    for (const Wire& wire : kWires) {
        text += std::string("$var wire 1 ") + wire.id + " " + wire.name + " $end\n";
    }
    return text + "$upscope $end\n$enddefinitions $end\n";
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

std::string Trace::toVcd() const {
    Guard guard(boardLock());
    std::string text = headerOf(mWire);
    for (const auto& [at, changes] : levelsOf(mWire)) {
        text += "#" + std::to_string(at) + "\n";
        for (const auto& [id, level] : changes) text += std::to_string(level) + id + "\n";
    }
    return text;
}

std::string Trace::toTraceEventJson() const {
    nlohmann::json root = {{"displayTimeUnit", "ms"}, {"traceEvents", nlohmann::json::array()}};
    for (const Event& event : events()) root["traceEvents"].push_back(jsonOf(event));
    // A log line may hold any bytes; JSON takes only UTF-8.
    return root.dump(1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace quil::board
