#include "fpga/gpio_line.h"

#include <quil_hal.h>

#include "common/log.h"

using quil::common::kFirmwareUpdateTag;

bool quil::fpga::driveLine(const char* function, const GpioLine& line, int level) {
    if (hal_gpio_setvalue(line.gpio, level) < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: %s %d set failed\n", function, line.words,
                       line.gpio);
        return false;
    }
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: %s %d pull %s\n", function, line.words, line.gpio,
                   level == kLow ? "low" : "high");
    return true;
}
