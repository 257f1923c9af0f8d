// What a stream is written on.
#pragma once

#include <stddef.h>

#include <string>

namespace quil::tools {

struct Screen {
    bool isTerminal = false;
    bool isStyled = false;  // a terminal that wants bold and colour
    size_t columns = 0;     // 0: no limit, as in a file
};

// Honours NO_COLOR and TERM=dumb. A terminal that does not tell its size has 80 columns.
Screen screenOf(int descriptor);

enum class Style { kGood, kWarning, kBad, kFaint };
std::string styled(const Screen& screen, Style style, const std::string& text);

}  // namespace quil::tools
