// quilctl's readers of traces, logs and waveforms: any text in any format. Input: text.
#include "tools/quilctl/files/wire_streams.h"

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/targets.h"
#include "tools/quilctl/output/result.h"

namespace quil::fuzz {
namespace {

void checkReader(const std::string& text, const std::string& format) {
    try {
        for (const tools::WireStream& stream : tools::readWire({text, format, {}})) {
            check(stream.times.empty() || stream.times.size() == stream.bytes.size(),
                  "bytes without a time");
        }
    } catch (const tools::Failure& failure) {
        check(failure.code() == tools::kBadData, "a failure that is not the source's");
        check(failure.what()[0] != '\0', "a failure without a word");
    }
}

}  // namespace

void wireStreams(std::span<const uint8_t> input) {
    const std::string text = textOf(input);
    for (const std::string& format : tools::wireFormats()) checkReader(text, format);
}

}  // namespace quil::fuzz
