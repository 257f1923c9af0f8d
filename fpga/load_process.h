// Bringing the FPGA up, one sequence a product. The hosting component calls the one for its board.
//
// A pending FPGA image is asked for by "1" in the property "persist.quil.system.fpga.fw.update",
// which goes back to "0" once the image is in place. Each returns 0 when the FPGA is up, or -1 when
// a step that matters failed; what had been done by then stays. They block for seconds.
#pragma once

#include <stdint.h>

#include "common/export.h"

#ifdef __cplusplus
namespace quil::fpga {
inline constexpr char kUpdateProperty[] = "persist.quil.system.fpga.fw.update";
}
extern "C" {
#endif

// Heron: the FPGA boots from its serial flash and takes its parameters over SPI.
QUIL_EXPORT int32_t fpgaLoadProcessHeron(void);

// Kestrel: the platform's driver loads the FPGA on every start; it takes its parameters over UDP.
QUIL_EXPORT int32_t fpgaLoadProcessKestrel(void);

// Wren on the T507: the closed FPGA library loads and updates the FPGA.
QUIL_EXPORT int32_t fpgaLoadProcessWren_t507(void);

#ifdef __cplusplus
}  // extern "C"
#endif
