// The bytes of an event, field by field.
#pragma once

#include <vector>

#include "board/core/trace.h"
#include "tools/quilctl/files/frame_fields.h"

namespace quil::tools {

// Of a frame of the MCU link, a client's request and its answer, an SPI transfer; what has no parts
// is one field.
std::vector<DecodedField> fieldsOf(const board::Event& event);

}  // namespace quil::tools
