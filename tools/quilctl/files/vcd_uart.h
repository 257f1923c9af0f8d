// The bytes on the serial lines of a waveform (VCD, IEEE 1364).
#pragma once

#include "tools/quilctl/files/wire_streams.h"

namespace quil::tools {

// The rate and the parity are those that the waveform's comments record, else `baud` and 8N1, else
// the rate of its shortest pulse. Throws a Failure (kBadData).
std::vector<WireStream> readVcdUart(const std::string& text, std::optional<int> baud);

}  // namespace quil::tools
