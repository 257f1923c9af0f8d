// How quilctl reads values from its arguments and from standard input. Input: text.
#include <sstream>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/targets.h"
#include "host/wire_frame.h"
#include "tools/quilctl/cli.h"
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

struct Said {
    int code;
    std::string out, err;
    bool hasResult;  // JSON has a document always, for an error too
};

Said decode(const std::string& standardInput, bool json) {
    std::istringstream in(standardInput);
    std::ostringstream out, err;
    const char* argv[] = {"quilctl", "frame", "decode", "--json"};
    const int code = tools::run(tools::kDeviceProgram, json ? 4 : 3, argv, {in, out, err});
    const bool hasResult =
        json ? tools::Json::parse(out.str()).contains("result") : !out.str().empty();
    return {code, out.str(), err.str(), hasResult};
}

void checkDecoded(const std::string& text, const std::optional<tools::Bytes>& bytes, bool json) {
    const Said said = decode(text, json);
    if (!bytes) {
        check(said.code == tools::kUsage && !said.hasResult, "no bytes, and yet decoded");
    } else {
        const bool good = host::frameProblems(*bytes).empty();
        check(said.code == (good ? tools::kOk : tools::kBadData), "another exit code");
        check(said.hasResult == (bytes->size() >= host::wire::kOverhead), "other fields said");
    }
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
