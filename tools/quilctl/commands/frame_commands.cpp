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

}  // namespace

void addFrameCommands(CLI::App& app, Cli& cli) {
    CLI::App& frame =
        addGroup(app, {"frame", "Frames of the MCU link", "Example: quilctl frame decode --help"});
    addEncode(frame, cli);
    addFrameDecodeCommand(frame, cli);
}

}  // namespace quil::tools
