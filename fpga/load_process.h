// Bringing the FPGA up, one sequence a product. The hosting component calls the one for its board.
//
// A pending FPGA image is asked for by "1" in the property "persist.quil.system.fpga.fw.update",
// which goes back to "0" once the image is in place. Each returns 0 when the FPGA is up, or -1 when
// a step that matters failed; what had been done by then stays. They block for seconds.
#pragma once

#include <stdint.h>

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Boots from its serial flash, takes its parameters over SPI.
QUIL_EXPORT int32_t fpgaLoadProcessHeron(void);
// Loaded by the platform's driver on every start, takes its parameters over UDP.
QUIL_EXPORT int32_t fpgaLoadProcessKestrel(void);
// Loaded and updated by the closed FPGA library.
QUIL_EXPORT int32_t fpgaLoadProcessWren_t507(void);

#ifdef __cplusplus
}  // extern "C"
#endif
