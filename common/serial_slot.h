// The process-wide serial descriptor slot.
#pragma once

#include <stdint.h>

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// -1 at load. Holds the port of MCU programming from its first opening on, or what a failed opening
// gave; it is never set back after a close. Other components may use it as well.
extern QUIL_EXPORT int32_t fd;

#ifdef __cplusplus
}  // extern "C"
#endif
