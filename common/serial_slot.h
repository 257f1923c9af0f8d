// The process-wide serial descriptor slot. It is not guarded: one programming session at a time, on
// one thread.
#pragma once

#include <stdint.h>

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// -1 at load. Holds the port of MCU programming from its first opening on, or what a failed opening
// gave (-1); it is never set back after a close. Other components may use it as well. It is not the
// descriptor of the MCU link, which is `config_info->mcu_fd`.
extern QUIL_EXPORT int32_t fd;

#ifdef __cplusplus
}  // extern "C"
#endif
