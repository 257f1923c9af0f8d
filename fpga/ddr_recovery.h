// The FPGA's memory after configuration: waiting for it, and configuring the FPGA anew when it does
// not come.
#pragma once

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Asks the DDR's state up to three times, and restarts the FPGA through PROG_B after each bad
// answer. Returns 0 when the memory is, or counts as, ready, -1 when it stayed at 0. Blocks for
// some 34 s at most.
QUIL_EXPORT int fpgaCheckDDRAndRecovery(void);

#ifdef __cplusplus
}  // extern "C"
#endif
