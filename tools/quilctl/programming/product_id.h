// How a part names itself to who asks its boot loader (ST's application note AN3155, and the GD32's
// own command).
#pragma once

#include <optional>
#include <string>

#include "programmer/parts.h"
#include "tools/quilctl/output/values.h"

namespace quil::tools {

inline constexpr uint8_t kAskForId = 0x02, kAskForGdPid = 0x06;

struct ProductId {
    uint32_t number = 0;
    int digits = 0;                          // hexadecimal ones, as the documents write it
    const programmer::Part* part = nullptr;  // null: unknown to this program

    std::string text() const;  // "part 0x0450: stm32h750"
};

// From the answer to one of these two commands; nothing for a refusal, a part of an answer, and
// the answer to another command.
std::optional<ProductId> productIdIn(uint8_t command, const Bytes& answer);

}  // namespace quil::tools
