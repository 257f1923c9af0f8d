#include "tools/quilctl/files/vcd_uart.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <sstream>

#include "tools/quilctl/output/result.h"

namespace quil::tools {
namespace {

struct Edge {
    double at;  // seconds
    bool level;
};

// How a line is driven from a time on.
struct UartMode {
    double from = 0;
    int baud = 0;
    int dataBits = 8;
    bool hasParity = false;
};

struct Wire {
    std::string name;
    std::vector<Edge> edges;
    std::vector<UartMode> modes;
};

struct Waveform {
    double unit = 1e-9;                 // seconds
    std::map<std::string, Wire> wires;  // by identifier
};

// What a comment says of a wire before the wire is declared; times are in units of the file.
struct RecordedMode {
    std::string wire;
    double from;
    UartMode mode;
};

Failure badWaveform(const std::string& why) { return {kBadData, "the waveform: " + why}; }

double unitOf(const std::string& text) {
    struct Unit {
        const char* name;
        double seconds;
    };
    constexpr std::array<Unit, 6> kUnits = {
        {{"s", 1}, {"ms", 1e-3}, {"us", 1e-6}, {"ns", 1e-9}, {"ps", 1e-12}, {"fs", 1e-15}}};
    int count = 0;
    char name[4] = {};
    if (sscanf(text.c_str(), "%d %3s", &count, name) != 2) throw badWaveform("bad timescale");
    for (const Unit& unit : kUnits) {
        if (unit.name == std::string(name) && (count == 1 || count == 10 || count == 100)) {
            return count * unit.seconds;
        }
    }
    throw badWaveform("bad timescale '" + text + "'");
}

// "mcu_tx from #1000000: UART 115200 8N1: .."
std::optional<RecordedMode> recordedIn(const std::string& comment) {
    char wire[64] = {}, parity = 'N';
    unsigned long long from = 0;
    int baud = 0, dataBits = 0;
    if (sscanf(comment.c_str(), " %63s from #%llu: UART %9d %1d%c", wire, &from, &baud, &dataBits,
               &parity) != 5) {
        return std::nullopt;
    }
    if (baud <= 0 || dataBits < 5 || dataBits > 8) return std::nullopt;
    return RecordedMode{wire, static_cast<double>(from), {0, baud, dataBits, parity != 'N'}};
}

class VcdReader {
  public:
    explicit VcdReader(const std::string& text) : mIn(text) {}

    Waveform read() {
        for (std::string word; mIn >> word;) {
            if (word[0] == '$') {
                declaration(word);
            } else {
                change(word);
            }
        }
        for (const RecordedMode& one : mRecorded) {
            for (auto& [id, wire] : mWaveform.wires) {
                if (wire.name != one.wire) continue;
                wire.modes.push_back(one.mode);
                wire.modes.back().from = one.from * mWaveform.unit;
            }
        }
        return std::move(mWaveform);
    }

  private:
    // The words up to $end; sections of values begin with a word of their own and have none.
    void declaration(const std::string& keyword) {
        if (keyword.rfind("$dump", 0) == 0 || keyword == "$end") return;
        std::string text;
        for (std::string word; mIn >> word && word != "$end";) {
            text += (text.empty() ? "" : " ") + word;
        }
        if (keyword == "$timescale") mWaveform.unit = unitOf(text);
        if (keyword == "$var") declareWire(text);
        if (keyword != "$comment") return;
        if (const auto mode = recordedIn(text)) mRecorded.push_back(*mode);
    }

    void declareWire(const std::string& text) {
        std::istringstream words(text);
        std::string type, id, name;
        int width = 0;
        if (words >> type >> width >> id >> name && width == 1) mWaveform.wires[id].name = name;
    }

    void change(const std::string& word) {
        if (word[0] == '#') {
            mTime = strtod(word.c_str() + 1, nullptr) * mWaveform.unit;
            if (!std::isfinite(mTime)) throw badWaveform("bad time '" + word.substr(0, 40) + "'");
            return;
        }
        if (word[0] == 'b' || word[0] == 'B' || word[0] == 'r') {
            std::string id;
            mIn >> id;  // a vector: no serial line
            return;
        }
        const auto wire = mWaveform.wires.find(word.substr(1));
        if (wire == mWaveform.wires.end()) return;
        auto& edges = wire->second.edges;
        if (!edges.empty() && mTime < edges.back().at) throw badWaveform("time goes backwards");
        const bool level = word[0] != '0';
        if (edges.empty() || edges.back().level != level) edges.push_back({mTime, level});
    }

    std::istringstream mIn;
    Waveform mWaveform;
    std::vector<RecordedMode> mRecorded;
    double mTime = 0;
};

// The rate whose bit is nearest to the shortest pulse; 0 without a pulse. What is before the first
// edge is none.
int rateOf(const std::vector<Edge>& edges) {
    constexpr std::array<int, 15> kRates = {300,    1200,   2400,    4800,    9600,
                                            19200,  38400,  57600,   115200,  230400,
                                            460800, 921600, 1000000, 2000000, 4000000};
    double shortest = HUGE_VAL;
    for (size_t i = 2; i < edges.size(); ++i) {
        const double pulse = edges[i].at - edges[i - 1].at;
        if (pulse > 0) shortest = std::min(shortest, pulse);
    }
    if (!std::isfinite(shortest)) return 0;
    return *std::min_element(kRates.begin(), kRates.end(), [shortest](int a, int b) {
        return std::abs(std::log(shortest * a)) < std::abs(std::log(shortest * b));
    });
}

// Takes the bytes off one line.
class UartDecoder {
  public:
    UartDecoder(const Wire& wire, std::vector<UartMode> modes)
        : mEdges(wire.edges), mModes(std::move(modes)), mStream{wire.name, {}, {}} {}

    WireStream decode() {
        double free = -1;  // when the byte before has ended
        for (size_t i = 1; i < mEdges.size(); ++i) {
            const bool falls = mEdges[i - 1].level && !mEdges[i].level;
            if (!falls || mEdges[i].at < free) continue;
            mAt = i;
            free = take(mEdges[i].at);
        }
        return std::move(mStream);
    }

  private:
    const UartMode& modeAt(double time) const {
        size_t found = 0;
        for (size_t i = 0; i < mModes.size(); ++i) {
            if (mModes[i].from <= time) found = i;
        }
        return mModes[found];
    }

    // Moves forward only.
    bool levelAt(double time) {
        while (mAt + 1 < mEdges.size() && mEdges[mAt + 1].at <= time) ++mAt;
        return mEdges[mAt].level;
    }

    double take(double start) {
        const UartMode& mode = modeAt(start);
        const double bit = 1.0 / mode.baud;
        unsigned value = 0;
        for (int i = 0; i < mode.dataBits; ++i) {
            if (levelAt(start + (1.5 + i) * bit)) value |= 1U << i;
        }
        const double stop = start + (mode.dataBits + (mode.hasParity ? 2.5 : 1.5)) * bit;
        if (!levelAt(stop)) return stop;  // a break: no byte
        mStream.bytes.push_back(static_cast<uint8_t>(value));
        mStream.times.push_back(start);
        return stop;
    }

    const std::vector<Edge>& mEdges;
    const std::vector<UartMode> mModes;
    size_t mAt = 0;
    WireStream mStream;
};

std::vector<UartMode> modesOf(const Wire& wire, std::optional<int> baud) {
    if (baud) return {{0, *baud, 8, false}};
    if (!wire.modes.empty()) return wire.modes;
    const int rate = rateOf(wire.edges);
    if (rate == 0) return {};
    return {{0, rate, 8, false}};
}

}  // namespace

std::vector<WireStream> readVcdUart(const std::string& text, std::optional<int> baud) {
    const Waveform waveform = VcdReader(text).read();
    const auto& wires = waveform.wires;
    // A board's waveform has other wires as well, and tells which are serial lines.
    const bool isRecorded = std::any_of(wires.begin(), wires.end(), [](const auto& one) {
        return !one.second.modes.empty() || one.second.name == "mcu_tx";
    });
    std::vector<WireStream> streams;
    for (const auto& [id, wire] : wires) {
        if (isRecorded && wire.modes.empty()) continue;
        const auto modes = modesOf(wire, baud);
        if (modes.empty()) continue;
        WireStream stream = UartDecoder(wire, modes).decode();
        if (!stream.bytes.empty()) streams.push_back(std::move(stream));
    }
    if (streams.empty()) throw badWaveform("no bytes on any line (--baud names the rate)");
    return streams;
}

}  // namespace quil::tools
