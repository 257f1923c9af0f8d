// How quilctl reads values from its arguments and from standard input. Input: text.
#include <algorithm>
#include <sstream>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/targets.h"
#include "host/wire_frame.h"
#include "tools/quilctl/cli.h"
#include "tools/quilctl/files/frame_stream.h"
#include "tools/quilctl/output/values.h"

namespace quil::fuzz {
namespace {

void checkNumber(const std::string& text) {
    const auto number = tools::parseNumber(text, UINT32_MAX);
    if (!number) return;
    check(*number <= UINT32_MAX, "a number above its limit");
    check(tools::parseNumber(std::to_string(*number), UINT32_MAX) == number,
          "a number reads as another");
    check(tools::parseNumber(tools::hex32(static_cast<uint32_t>(*number)), UINT32_MAX) == number,
          "a number in hex reads as another");
    if (*number > 0) check(!tools::parseNumber(text, *number - 1), "a limit does not hold");
}

// The commands for frames alone: for each input, building all of them would take most of the time.
constexpr tools::Program kFrameProgram = {"", "", tools::addFrameCommands, nullptr};

struct Said {
    int code;
    std::string err;
};

Said decode(const std::string& standardInput, bool json) {
    std::istringstream in(standardInput);
    std::ostringstream out, err;
    const char* argv[] = {"quilctl", "frame", "decode", "--json"};
    const int code = tools::run(kFrameProgram, json ? 4 : 3, argv, {in, out, err});
    if (json) check(tools::Json::parse(out.str())["exit_code"] == code, "another code in JSON");
    return {code, err.str()};
}

// Whether the bytes are frames without anything wrong, one after the other.
bool areFrames(const tools::Bytes& bytes) {
    const auto parts = tools::partsOf(bytes);
    return !parts.empty() && std::all_of(parts.begin(), parts.end(), [&](const auto& part) {
        const auto frame = host::ByteView(bytes).from(part.offset).first(part.size);
        return part.isFrame && host::frameProblems(frame).empty();
    });
}

void checkParts(const tools::Bytes& bytes) {
    size_t next = 0;
    for (const tools::StreamPart& part : tools::partsOf(bytes)) {
        check(part.offset == next && part.size > 0, "a stream with a gap");
        next += part.size;
    }
    check(next == bytes.size(), "a stream that ends early");
}

void checkDecoded(const std::string& text, const std::optional<tools::Bytes>& bytes, bool json) {
    const Said said = decode(text, json);
    if (bytes) {
        checkParts(*bytes);
        check(said.code == (areFrames(*bytes) ? tools::kOk : tools::kBadData), "another exit code");
    }
    check(said.code == tools::kOk || said.code == tools::kBadData, "no exit code of a decoder");
    check(said.err.empty() == (said.code == tools::kOk),
          "a problem without a word, or a word "
          "without a problem");
}

}  // namespace

void quilctlValues(std::span<const uint8_t> input) {
    const std::string text = textOf(input);
    checkNumber(text);
    const auto bytes = tools::parseHex(text);
    if (bytes) check(tools::parseHex(tools::toHex(*bytes)) == bytes, "bytes read as others");
    checkDecoded(text, bytes, text.size() % 2 == 1);
}

}  // namespace quil::fuzz
