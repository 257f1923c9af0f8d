#include <cstdio>
#include <istream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>

#include "host/wire_frame.h"
#include "tools/quilctl/cli.h"
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

int encode(const Cli& cli, const EncodeArguments& arguments) {
    host::WireFrame frame;
    frame.command = static_cast<uint32_t>(*parseNumber(arguments.command, UINT32_MAX));
    frame.label = static_cast<uint16_t>(*parseNumber(arguments.label, UINT16_MAX));
    frame.payload = bytesOf(arguments.data);
    if (arguments.isWrite) frame.flags |= wire::kWriteFlag;
    if (frame.payload.size() > wire::kPayloadMax) {
        cli.console.err << "a frame carries at most " << wire::kPayloadMax << " bytes\n";
        return kUsage;
    }
    cli.console.out << toHex(host::buildFrame(frame)) << '\n';
    return kOk;
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
    std::snprintf(text, sizeof text, "%6zu  %-12s %-9s ", at, hex.c_str(), name);
    out << text << value << '\n';
}

void printFields(std::ostream& out, const Bytes& bytes, const host::WireFrame& frame) {
    const host::ByteView all(bytes);
    out << "offset  bytes        field     value\n";
    char value[32];
    for (const Field& field : kFields) {
        const auto part = all.from(field.at).first(field.size);
        std::snprintf(value, sizeof value, "0x%0*X", static_cast<int>(2 * field.size),
                      valueOf(part));
        printLine(out, field.at, toHex(part), field.name, value + meaningOf(frame, field));
    }
    const size_t sumAt = bytes.size() - wire::kChecksumSize;
    printLine(out, wire::kPayloadAt, "", "payload",
              frame.payload.empty() ? "(none)" : toHex(frame.payload));
    std::snprintf(value, sizeof value, "0x%04X  %s", valueOf(all.from(sumAt)),
                  host::checksumHolds(bytes) ? "good" : "wrong");
    printLine(out, sumAt, toHex(all.from(sumAt)), "checksum", value);
}

void printJson(std::ostream& out, const host::WireFrame& frame,
               const std::vector<std::string>& problems) {
    out << nlohmann::json{{"label", frame.label},     {"flags", frame.flags},
                          {"write", frame.isWrite()}, {"command", frame.command},
                          {"field_a", frame.fieldA},  {"field_b", frame.fieldB},
                          {"field_c", frame.fieldC},  {"payload", frame.payload},
                          {"problems", problems}}
               .dump()
        << '\n';
}

int decode(const Cli& cli, const std::vector<std::string>& words) {
    Bytes bytes = bytesOf(words);
    if (words.empty()) {
        const std::string text(std::istreambuf_iterator<char>(cli.console.in), {});
        const auto parsed = parseHex(text);
        if (!parsed) {
            cli.console.err << "standard input has something other than hexadecimal bytes\n";
            return kUsage;
        }
        bytes = *parsed;
    }
    const auto problems = host::frameProblems(bytes);
    if (bytes.size() >= wire::kOverhead) {
        const host::WireFrame frame = host::parseFrame(bytes);
        if (cli.options.json) {
            printJson(cli.console.out, frame, problems);
        } else {
            printFields(cli.console.out, bytes, frame);
        }
    }
    for (const std::string& problem : problems) cli.console.err << problem << '\n';
    return problems.empty() ? kOk : kBadData;
}

void addEncode(CLI::App& frame, Cli& cli) {
    auto arguments = std::make_shared<EncodeArguments>();
    CLI::App* command = frame.add_subcommand("encode", "Print the bytes of a request frame");
    command->add_option("CMD", arguments->command, "Command code")
        ->required()
        ->check(numberUpTo(UINT32_MAX));
    command->add_option("--data", arguments->data, "Payload bytes")->check(hexBytes());
    command->add_option("--label", arguments->label, "Sequence label (default 1)")
        ->check(numberUpTo(UINT16_MAX));
    command->add_flag("--set", arguments->isWrite, "A writing request");
    command->footer("Example: quilctl frame encode 0x102 --label 5 --data 01");
    command->callback(
        [&cli, arguments] { cli.action = [&cli, arguments] { return encode(cli, *arguments); }; });
}

void addDecode(CLI::App& frame, Cli& cli) {
    auto words = std::make_shared<std::vector<std::string>>();
    CLI::App* command = frame.add_subcommand("decode", "Take a frame apart and check it");
    command->add_option("HEX", *words, "The frame's bytes (default: from standard input)")
        ->check(hexBytes());
    command->footer("Example: quilctl frame encode 1 | quilctl frame decode");
    command->callback(
        [&cli, words] { cli.action = [&cli, words] { return decode(cli, *words); }; });
}

}  // namespace

void addFrameCommands(CLI::App& app, Cli& cli) {
    CLI::App* frame = app.add_subcommand("frame", "Frames of the MCU link");
    frame->require_subcommand(1);
    frame->fallthrough();
    frame->footer("Example: quilctl frame decode --help");
    addEncode(*frame, cli);
    addDecode(*frame, cli);
}

}  // namespace quil::tools
