// The FPGA's configuration flash: writing a new image into it, and restarting the FPGA from it.
//
// The host sees the flash as "/dev/mtd0" and writes it with the system's mtd_debug tool. While the
// control line (PROG_B) and the configuration line are low the FPGA keeps off the flash; their
// rising edges start it anew, and it raises DONE when its configuration is complete. Everything
// blocks its caller, for seconds. A failure after the erase leaves the FPGA without an image.
#pragma once

#include <stdint.h>

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// The size of a file in bytes, or 0xFFFFFFFF on failure. Files of 4 GiB and more have no meaning
// here.
QUIL_EXPORT uint32_t getFileSize(const char* path);

// Polls the line `fpga_done_gpio` of the configuration for up to 10 s. Returns 1 as soon as it is
// high, 0 when there is no such line, otherwise the last value read: 0, or the GPIO interface's
// negative error as it is.
QUIL_EXPORT int32_t fpgaCheckDone(void);

// Erases the flash, writes the image (`fpga_fw_path` of the configuration), restarts the FPGA and
// waits for DONE. Returns 0, or -1 at the first failure; the lines stay as they are then.
QUIL_EXPORT int32_t fpgaFwUpdate(void);

// Erases the flash. Returns 0 or -1.
QUIL_EXPORT int32_t fpgaFlashFormat(void);

// Writes the image (`fpga_fw_path`) into an erased flash and restarts the FPGA once `fw_updating`
// is not 1 (the MCU's firmware is being written), however long that takes: it is read without a
// lock. Does not wait for DONE. Returns 0 or -1.
QUIL_EXPORT int32_t fpgaFlashWrite(void);

#ifdef __cplusplus
}  // extern "C"
#endif
