// Bytes taken apart field by field, for people.
#pragma once

#include <string>
#include <vector>

#include "host/wire_frame.h"

namespace quil::tools {

struct DecodedField {
    std::string name;
    size_t at, size;    // of its bytes
    std::string value;  // empty: the bytes tell it
};

// All fields of a frame of the MCU link, the payload and the checksum, whatever is wrong with it.
// It has at least host::wire::kOverhead bytes.
std::vector<DecodedField> frameFields(host::ByteView frame);

}  // namespace quil::tools
