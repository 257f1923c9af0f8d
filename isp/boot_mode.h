// The GPIO sequences that put the MCU into its boot loader and back into its application. BOOT0
// high while NRST is released starts the boot loader, BOOT0 low the application.
//
// The two families' sequences differ in the order of the lines and in their pauses; both are kept.
// They block for their pauses, one caller at a time. All return 0: exit codes of the shell commands
// are ignored.
#pragma once

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Puts an STM32 or GD32 part into its boot loader: BOOT0 high, then a reset through NRST.
QUIL_EXPORT int mcu_isp_init(void);

// Restarts an STM32 or GD32 part into its application: BOOT0 low, then a reset.
QUIL_EXPORT int mcu_isp_close(void);

// Puts an N32 part into its boot loader.
QUIL_EXPORT int mcu_enter_isp_mode(void);

// Restarts an N32 part into its application.
QUIL_EXPORT int mcu_exit_isp_mode(void);

#ifdef __cplusplus
}  // extern "C"
#endif
