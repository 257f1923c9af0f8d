#include <stdio.h>

#include <istream>
#include <iterator>
#include <ostream>

#include "host/wire_frame.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/validators.h"

namespace quil::tools {
namespace {

namespace wire = host::wire;

struct EncodeArguments {
    std::string command;
    std::vector<std::string> data;
    std::string label = "1";
    bool isWrite = false;
};

void encode(const Cli& /*cli*/, const EncodeArguments& arguments, Result& result) {
    host::WireFrame frame;
    frame.command = static_cast<uint32_t>(*parseNumber(arguments.command, UINT32_MAX));
    frame.label = static_cast<uint16_t>(*parseNumber(arguments.label, UINT16_MAX));
    frame.payload = bytesOf(arguments.data);
    if (arguments.isWrite) frame.flags |= wire::kWriteFlag;
    if (frame.payload.size() > wire::kPayloadMax) {
        throw Failure(kUsage,
                      "a frame carries at most " + std::to_string(wire::kPayloadMax) + " bytes");
    }
    const Bytes bytes = host::buildFrame(frame);
    result.json["bytes"] = bytes;
    result.text << toHex(bytes) << '\n';
}

struct Field {
    size_t at, size;
    const char* name;
};

constexpr Field kFields[] = {
    {wire::kMagicAt, 2, "magic"},     {wire::kReservedAt, 2, "reserved"},
    {wire::kFixedWordAt, 2, "fixed"}, {wire::kLabelAt, 2, "label"},
    {wire::kLengthAt, 2, "length"},   {wire::kFlagsAt, 1, "flags"},
    {wire::kFieldAAt, 2, "field_a"},  {wire::kPadAt, 1, "reserved"},
    {wire::kFieldBAt, 4, "field_b"},  {wire::kFieldCAt, 4, "field_c"},
    {wire::kCommandAt, 4, "command"}, {wire::kTailAt, 4, "reserved"},
};

uint32_t valueOf(host::ByteView bytes) {
    uint32_t value = 0;
    for (size_t i = 0; i < bytes.size(); ++i) value |= uint32_t{bytes[i]} << (8 * i);
    return value;
}

std::string meaningOf(const host::WireFrame& frame, const Field& field) {
    if (field.at != wire::kFlagsAt) return {};
    const int type = frame.flags & wire::kTypeMask;
    const char* name = type == wire::kTypeRequest  ? "request"
                       : type == wire::kTypeAnswer ? "answer"
                                                   : "unknown type";
    return std::string("  ") + name + (frame.isWrite() ? ", set" : ", get");
}

void printLine(std::ostream& out, size_t at, const std::string& hex, const char* name,
               const std::string& value) {
    char text[64];
    snprintf(text, sizeof(text), "%6zu  %-12s %-9s ", at, hex.c_str(), name);
    out << text << value << '\n';
}

void printFields(std::ostream& out, const Bytes& bytes, const host::WireFrame& frame) {
    const host::ByteView all(bytes);
    out << "offset  bytes        field     value\n";
    char value[32];
    for (const Field& field : kFields) {
        const auto part = all.from(field.at).first(field.size);
        snprintf(value, sizeof(value), "0x%0*X", static_cast<int>(2 * field.size), valueOf(part));
        printLine(out, field.at, toHex(part), field.name, value + meaningOf(frame, field));
    }
    const size_t sumAt = bytes.size() - wire::kChecksumSize;
    printLine(out, wire::kPayloadAt, "", "payload",
              frame.payload.empty() ? "(none)" : toHex(frame.payload));
    snprintf(value, sizeof(value), "0x%04X  %s", valueOf(all.from(sumAt)),
             host::checksumHolds(bytes) ? "good" : "wrong");
    printLine(out, sumAt, toHex(all.from(sumAt)), "checksum", value);
}

Json frameDocument(const host::WireFrame& frame, const std::vector<std::string>& problems) {
    return {{"label", frame.label},     {"flags", frame.flags},     {"write", frame.isWrite()},
            {"command", frame.command}, {"field_a", frame.fieldA},  {"field_b", frame.fieldB},
            {"field_c", frame.fieldC},  {"payload", frame.payload}, {"problems", problems}};
}

using HexWords = std::vector<std::string>;

Bytes givenBytes(const Cli& cli, const HexWords& words) {
    if (!words.empty()) return bytesOf(words);
    const auto parsed = parseHex({std::istreambuf_iterator<char>(cli.console.in), {}});
    if (parsed) return *parsed;
    throw Failure(kUsage, "standard input has something other than hexadecimal bytes");
}

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += (text.empty() ? "" : "; ") + line;
    return text;
}

void decode(const Cli& cli, const HexWords& words, Result& result) {
    const Bytes bytes = givenBytes(cli, words);
    const auto problems = host::frameProblems(bytes);
    if (bytes.size() >= wire::kOverhead) {
        const host::WireFrame frame = host::parseFrame(bytes);
        result.json = frameDocument(frame, problems);
        printFields(result.text, bytes, frame);
    }
    if (!problems.empty()) throw Failure(kBadData, "the frame: " + joined(problems));
}

void addEncode(CLI::App& frame, Cli& cli) {
    const auto [command, arguments] =
        addVerb(frame, cli,
                {"encode", "Print the bytes of a request frame",
                 "Example: quilctl frame encode 0x102 --label 5 --data 01", kNoBoardOption},
                encode);
    command.add_option("CMD", arguments.command, "Command code")
        ->required()
        ->check(numberUpTo(UINT32_MAX));
    command.add_option("--data", arguments.data, "Payload bytes")->check(hexBytes());
    command.add_option("--label", arguments.label, "Sequence label (default 1)")
        ->check(numberUpTo(UINT16_MAX));
    command.add_flag("--set", arguments.isWrite, "A writing request");
}

void addDecode(CLI::App& frame, Cli& cli) {
    const auto [command, words] =
        addVerb(frame, cli,
                {"decode", "Take a frame apart and check it",
                 "Example: quilctl frame encode 1 | quilctl frame decode", kNoBoardOption},
                decode);
    command.add_option("HEX", words, "The frame's bytes (default: from standard input)")
        ->check(hexBytes());
}

}  // namespace

void addFrameCommands(CLI::App& app, Cli& cli) {
    CLI::App& frame =
        addGroup(app, {"frame", "Frames of the MCU link", "Example: quilctl frame decode --help"});
    addEncode(frame, cli);
    addDecode(frame, cli);
}

}  // namespace quil::tools
