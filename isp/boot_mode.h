// The GPIO sequences that put the MCU into its boot loader and back into its application. BOOT0
// high while NRST is released starts the boot loader, BOOT0 low the application.
//
// The two families' sequences differ in the order of the lines and in their pauses; both are kept.
// Results of the shell are not checked.
#pragma once

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// STM32/GD32. Return 0.
QUIL_EXPORT int mcu_isp_init(void);
QUIL_EXPORT int mcu_isp_close(void);

// N32. Return 0.
QUIL_EXPORT int mcu_enter_isp_mode(void);
QUIL_EXPORT int mcu_exit_isp_mode(void);

#ifdef __cplusplus
}  // extern "C"
#endif
