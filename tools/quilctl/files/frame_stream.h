// Frames of the MCU link in a stream of bytes, and what stands between them.
#pragma once

#include <string>
#include <vector>

#include "tools/quilctl/output/values.h"

namespace quil::tools {

// A good frame, or bytes that belong to none.
struct StreamPart {
    size_t offset;
    size_t size;
    bool isFrame;
    std::string remark;  // of bytes that are no frame: what they look like
};

std::vector<StreamPart> partsOf(const Bytes& bytes);

}  // namespace quil::tools
