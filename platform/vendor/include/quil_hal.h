// The board's closed hardware layer (libquilhal, libquilhalcommon), as far as the FPGA's bring-up
// uses it. Only declarations: the libraries come with the board.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Drives a GPIO line, 0 low or 1 high. Lines go by the platform's numbers; 999 stands for one that
// the product file does not name. Returns a negative number on failure.
int32_t hal_gpio_setvalue(int32_t gpio, int32_t value);

// Returns the line's level, 0 or 1, or a negative number on failure.
int32_t hal_gpio_getvalue(int32_t gpio);

// Reads up to `size` bytes of a sysfs file to `buffer`. Returns a negative number on failure. It
// does not terminate the text.
int32_t hal_sys_read(const char* path, char* buffer, uint32_t size);

// Loads the FPGA through the platform's driver `drv_path` with the image at `fw_path`, and waits
// for the end of it. Returns a negative number on failure.
int32_t hal_fpga_load_program_sync(const char* drv_path, const char* fw_path);

#ifdef __cplusplus
}  // extern "C"
#endif
