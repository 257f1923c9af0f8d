// The GPIO lines to the FPGA.
#pragma once

#include <stdint.h>

namespace quil::fpga {

// A line by its number, and what log messages call it.
struct GpioLine {
    const char* words;
    int32_t gpio;
};

inline constexpr int kLow = 0, kHigh = 1;

// Sets the line and logs it under the name `function`. False when the line cannot be set.
bool driveLine(const char* function, const GpioLine& line, int level);

}  // namespace quil::fpga
