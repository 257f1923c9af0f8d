// What a serial line carried, read from what people have of it: hexadecimal or raw bytes, the
// traces that quilctl writes, the library's log, a waveform.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/quilctl/output/values.h"

namespace quil::tools {

// One direction of a line.
struct WireStream {
    std::string name;  // "" when there is only one
    Bytes bytes;
    std::vector<double> times;  // of each byte, in seconds; empty when the source has none
};

// The names that --from takes; the first lets the content decide.
const std::vector<std::string>& wireFormats();

struct WireSource {
    std::string text;
    std::string format;       // of wireFormats()
    std::optional<int> baud;  // of a waveform that does not say it itself
};
// Throws a Failure (kBadData) that says what is wrong with the source.
std::vector<WireStream> readWire(const WireSource& source);

}  // namespace quil::tools
