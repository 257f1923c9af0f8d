#include "tools/quilctl/files/wire_streams.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <sstream>

#include "tools/quilctl/files/vcd_uart.h"
#include "tools/quilctl/output/result.h"

namespace quil::tools {
namespace {

constexpr char kToMcu[] = "uart-tx", kFromMcu[] = "uart-rx";

Failure notDecoded(const std::string& why) { return {kBadData, why}; }

// Bytes of events, each in its direction.
class Directions {
  public:
    void add(const std::string& kind, const std::string& line, double at, const Bytes& bytes) {
        WireStream& stream = of(line + (kind == kToMcu ? " to the MCU" : " from the MCU"));
        stream.bytes.insert(stream.bytes.end(), bytes.begin(), bytes.end());
        stream.times.insert(stream.times.end(), bytes.size(), at);
    }
    std::vector<WireStream> take(const char* what) {
        if (mStreams.empty()) {
            throw notDecoded(std::string("the ") + what + " has no bytes of a serial line");
        }
        return std::move(mStreams);
    }

  private:
    WireStream& of(const std::string& name) {
        for (WireStream& stream : mStreams) {
            if (stream.name == name) return stream;
        }
        mStreams.push_back({name, {}, {}});
        return mStreams.back();
    }
    std::vector<WireStream> mStreams;
};

bool isLineEvent(const std::string& kind) { return kind == kToMcu || kind == kFromMcu; }

std::vector<WireStream> readHex(const WireSource& source) {
    const auto bytes = parseHex(source.text);
    if (!bytes) throw notDecoded("there is something other than hexadecimal bytes");
    return {{"", *bytes, {}}};
}

std::vector<WireStream> readRaw(const WireSource& source) {
    return {{"", Bytes(source.text.begin(), source.text.end()), {}}};
}

// "    0.002778 uart-tx   /dev/ttyS3: 2 bytes [55 bb]"
bool addTraceLine(const std::string& text, Directions& directions) {
    std::istringstream line(text);
    double at = 0;
    std::string kind, name;
    if (!(line >> at >> kind >> name) || !isLineEvent(kind)) return false;
    const size_t open = text.rfind('['), close = text.rfind(']');
    if (open == std::string::npos || close == std::string::npos || close < open) return false;
    const auto bytes = parseHex(text.substr(open + 1, close - open - 1));
    if (!bytes) return false;
    directions.add(kind, name.substr(0, name.find(':')), at, *bytes);
    return true;
}

std::vector<WireStream> readTrace(const WireSource& source) {
    Directions directions;
    std::istringstream lines(source.text);
    for (std::string line; std::getline(lines, line);) addTraceLine(line, directions);
    return directions.take("trace");
}

// Either the trace events of --trace, or what quilctl --json frame encode prints.
std::vector<WireStream> readJson(const WireSource& source) {
    const Json document = Json::parse(source.text, nullptr, false);
    if (!document.is_object()) throw notDecoded("it is no JSON object");
    if (const auto at = Json::json_pointer("/result/bytes"); document.contains(at)) {
        Bytes bytes;
        for (const Json& byte : document[at]) {
            if (!byte.is_number_unsigned() || byte.get<uint64_t>() > UINT8_MAX) {
                throw notDecoded("result.bytes has something other than bytes");
            }
            bytes.push_back(byte.get<uint8_t>());
        }
        return {{"", bytes, {}}};
    }
    Directions directions;
    const auto textIn = [](const Json& event, const char* path) {
        const Json::json_pointer at(path);
        return event.is_object() && event.contains(at) && event[at].is_string()
                   ? event[at].get<std::string>()
                   : std::string();
    };
    if (!document.contains("traceEvents")) throw notDecoded("it has no traceEvents");
    for (const Json& event : document["traceEvents"]) {
        const std::string kind = textIn(event, "/args/kind");
        if (!isLineEvent(kind)) continue;
        const auto bytes = parseHex(textIn(event, "/args/bytes"));
        const Json& time = event["args"].value("at", Json());  // ns
        const double at = time.is_number() ? time.get<double>() / 1e9 : 0;
        if (bytes) directions.add(kind, textIn(event, "/args/source"), at, *bytes);
    }
    return directions.take("trace");
}

constexpr char kLogged[] = "data[";

// "data[0]:0x55", wherever it stands in a line.
std::optional<uint8_t> loggedByte(const std::string& line) {
    const size_t at = line.find(kLogged);
    if (at == std::string::npos) return std::nullopt;
    const size_t value = line.find("]:0x", at);
    if (value == std::string::npos) return std::nullopt;
    const auto byte = parseHex(line.substr(value + 4, 2));
    return byte && byte->size() == 1 ? std::optional((*byte)[0]) : std::nullopt;
}

std::vector<WireStream> readLog(const WireSource& source) {
    WireStream stream;
    std::istringstream lines(source.text);
    for (std::string line; std::getline(lines, line);) {
        if (const auto byte = loggedByte(line)) stream.bytes.push_back(*byte);
    }
    if (stream.bytes.empty()) {
        throw notDecoded("the log has no lines data[..]:0x.. (the library prints them at level D)");
    }
    return {stream};
}

std::vector<WireStream> readVcd(const WireSource& source) {
    return readVcdUart(source.text, source.baud);
}

bool isJson(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    return first != std::string::npos && text[first] == '{';
}

bool isVcd(const std::string& text) { return text.find("$enddefinitions") != std::string::npos; }

bool isHex(const std::string& text) { return parseHex(text).has_value(); }

bool isTrace(const std::string& text) {
    std::istringstream lines(text);
    Directions found;
    for (std::string line; std::getline(lines, line);) {
        if (addTraceLine(line, found)) return true;
    }
    return false;
}

bool isLog(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (loggedByte(line)) return true;
    }
    return false;
}

// The start of a frame as it is on the line.
bool isRaw(const std::string& text) { return text.find("\x55\xBB") != std::string::npos; }

struct Format {
    const char* name;
    bool (*isIt)(const std::string& text);
    std::vector<WireStream> (*read)(const WireSource& source);
};
// In the order in which the content is asked.
constexpr std::array<Format, 6> kFormats = {{
    {"hex", isHex, readHex},
    {"vcd", isVcd, readVcd},
    {"json", isJson, readJson},
    {"trace", isTrace, readTrace},
    {"log", isLog, readLog},
    {"raw", isRaw, readRaw},
}};

}  // namespace

const std::vector<std::string>& wireFormats() {
    static const std::vector<std::string>* names = [] {
        auto* all = new std::vector<std::string>{"auto"};
        for (const Format& format : kFormats) all->emplace_back(format.name);
        return all;
    }();
    return *names;
}

std::vector<WireStream> readWire(const WireSource& source) {
    for (const Format& format : kFormats) {
        const bool isIt =
            source.format == "auto" ? format.isIt(source.text) : source.format == format.name;
        if (isIt) return format.read(source);
    }
    throw notDecoded(
        "it is neither hexadecimal bytes nor a trace, a log or a waveform of the line "
        "(--from names the format)");
}

}  // namespace quil::tools
