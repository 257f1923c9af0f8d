// Frames taken apart: one, or all that a stream of bytes, a trace, a log or a waveform holds.
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <istream>
#include <iterator>
#include <ostream>

#include "host/wire_frame.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/frame_fields.h"
#include "tools/quilctl/files/frame_stream.h"
#include "tools/quilctl/files/input_file.h"
#include "tools/quilctl/files/validators.h"
#include "tools/quilctl/files/wire_streams.h"

namespace quil::tools {
namespace {

namespace wire = host::wire;

constexpr uint64_t kBaudMost = 100'000'000;

void printLine(std::ostream& out, size_t at, const std::string& hex, const char* name,
               const std::string& value) {
    char text[64];
    snprintf(text, sizeof(text), "%6zu  %-12s %-9s ", at, hex.c_str(), name);
    out << text << value << '\n';
}

void printFields(std::ostream& out, host::ByteView bytes) {
    out << "offset  bytes        field     value\n";
    for (const DecodedField& field : frameFields(bytes)) {
        const std::string hex = toHex(bytes.from(field.at).first(field.size));
        if (field.at == wire::kPayloadAt) {
            printLine(out, field.at, "", "payload", hex.empty() ? "(none)" : hex);
        } else {
            printLine(out, field.at, hex, field.name.c_str(), field.value);
        }
    }
}

Json frameDocument(const host::WireFrame& frame, const std::vector<std::string>& problems) {
    return {{"label", frame.label},     {"flags", frame.flags},     {"write", frame.isWrite()},
            {"command", frame.command}, {"field_a", frame.fieldA},  {"field_b", frame.fieldB},
            {"field_c", frame.fieldC},  {"payload", frame.payload}, {"problems", problems}};
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += (text.empty() ? "" : "; ") + line;
    return text;
}

struct DecodeArguments {
    std::vector<std::string> words;  // bytes, or one file
    std::string format = "auto";
    std::string baud;
};

bool isFile(const std::string& name) { return access(name.c_str(), F_OK) == 0; }

std::string givenText(const Cli& cli, const std::vector<std::string>& words) {
    if (words.empty()) return readInput(cli.console.in);
    if (words.size() == 1 && !parseHex(words[0])) return readInput(words[0]);
    std::string text;
    for (const std::string& word : words) {
        if (!parseHex(word)) throw Failure(kUsage, "either bytes or one file: " + word);
        text += word + " ";
    }
    return text;
}

// A part of one of the streams.
struct Item {
    const WireStream* stream;
    StreamPart part;

    double at() const { return stream->times.empty() ? 0 : stream->times[part.offset]; }
    host::ByteView bytes() const {
        return host::ByteView(stream->bytes).from(part.offset).first(part.size);
    }
};

// In the order of their times, where the streams have times.
std::vector<Item> itemsOf(const std::vector<WireStream>& streams) {
    std::vector<Item> items;
    for (const WireStream& stream : streams) {
        for (const StreamPart& part : partsOf(stream.bytes)) items.push_back({&stream, part});
    }
    std::stable_sort(items.begin(), items.end(),
                     [](const Item& a, const Item& b) { return a.at() < b.at(); });
    return items;
}

std::string placeOf(const Item& item) {
    char time[32] = "";
    if (!item.stream->times.empty()) snprintf(time, sizeof(time), "%.6f s, ", item.at());
    return time + item.stream->name + (item.stream->name.empty() ? "" : ", ") + "offset " +
           std::to_string(item.part.offset);
}

Json placeDocument(const Item& item) {
    Json place{{"offset", item.part.offset}, {"size", item.part.size}};
    if (!item.stream->name.empty()) place["stream"] = item.stream->name;
    if (!item.stream->times.empty()) place["at"] = item.at();
    return place;
}

void addFrame(Result& result, const Item& item, std::vector<std::string>& wrong) {
    const host::ByteView bytes = item.bytes();
    const auto frame = host::parseFrame(bytes);
    const auto problems = host::frameProblems(bytes);
    result.text << placeOf(item) << ": a frame of " << bytes.size() << " bytes\n";
    printFields(result.text, bytes);
    Json document = placeDocument(item);
    document.update(frameDocument(frame, problems));
    result.json["frames"].push_back(document);
    if (!problems.empty()) wrong.push_back(placeOf(item) + ": " + joined(problems));
}

void addJunk(Result& result, const Item& item, std::vector<std::string>& wrong) {
    constexpr size_t kShown = 16;
    const std::string what = placeOf(item) + ": " + std::to_string(item.part.size) +
                             (item.part.size == 1 ? " byte" : " bytes") + " outside of frames";
    result.text << what << " (" << item.part.remark << "): " << toShortHex(item.bytes(), kShown)
                << '\n';
    Json document = placeDocument(item);
    document["remark"] = item.part.remark;
    result.json["junk"].push_back(document);
    wrong.push_back(what + " (" + item.part.remark + ")");
}

// What was given as one frame, good or not.
void decodeOne(const Bytes& bytes, Result& result) {
    const auto problems = host::frameProblems(bytes);
    if (bytes.size() >= wire::kOverhead) {
        const host::WireFrame frame = host::parseFrame(bytes);
        result.json = frameDocument(frame, problems);
        printFields(result.text, bytes);
    }
    if (!problems.empty()) throw Failure(kBadData, "the frame: " + joined(problems));
}

void decodeAll(const std::vector<Item>& items, Result& result) {
    constexpr size_t kNamed = 3;
    std::vector<std::string> wrong;
    result.json = {{"frames", Json::array()}, {"junk", Json::array()}};
    for (const Item& item : items) {
        (item.part.isFrame ? addFrame : addJunk)(result, item, wrong);
    }
    if (wrong.empty()) return;
    const size_t more = wrong.size() - std::min(wrong.size(), kNamed);
    wrong.resize(wrong.size() - more);
    throw Failure(kBadData,
                  joined(wrong) + (more == 0 ? "" : "; and " + std::to_string(more) + " more"));
}

void decode(const Cli& cli, const DecodeArguments& arguments, Result& result) {
    WireSource source{givenText(cli, arguments.words), arguments.format, {}};
    const auto baud = parseNumber(arguments.baud, kBaudMost);
    if (baud && *baud > 0) source.baud = static_cast<int>(*baud);
    const auto streams = readWire(source);
    const auto items = itemsOf(streams);
    const auto frames = std::count_if(items.begin(), items.end(),
                                      [](const Item& item) { return item.part.isFrame; });
    const bool isPlain = streams.size() == 1 && streams[0].times.empty();
    if (isPlain && (frames == 0 || items.size() == 1)) return decodeOne(streams[0].bytes, result);
    decodeAll(items, result);
}

CLI::Validator bytesOrFile() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            if (parseHex(text) || isFile(text)) return {};
            return "'" + text + "' is neither bytes (pairs of hexadecimal digits) nor a file";
        },
        "HEX|FILE");
}

}  // namespace

void addFrameDecodeCommand(CLI::App& frame, Cli& cli) {
    const auto [command, arguments] =
        addVerb(frame, cli,
                {"decode", "Take frames apart and check them",
                 "Reads bytes as hexadecimal digits; or a file or standard input with such\n"
                 "digits, with raw bytes, with a trace of quilctl (.txt, .json, .vcd), or with\n"
                 "the library's log at level D. Bytes between frames are named with their offset.\n"
                 "Exit code 3 when something is no good frame.\n"
                 "Example: quilctl frame encode 1 | quilctl frame decode\n"
                 "         quilctl frame decode link.vcd",
                 kNoBoardOption},
                decode);
    command.add_option("HEX", arguments.words, "Bytes, or a file (default: standard input)")
        ->check(bytesOrFile());
    command.add_option("--from", arguments.format, "What it is (default: the content decides)")
        ->check(CLI::IsMember(wireFormats()));
    command
        .add_option("--baud", arguments.baud,
                    "The rate of a waveform, 8N1 (default: as it records, or its shortest pulse)")
        ->check(numberUpTo(kBaudMost));
}

}  // namespace quil::tools
