// The board's closed FPGA library (libquilsdk, libquilsdkcommon), as far as the load sequences use
// it. Only declarations: the library comes with the board. Each call blocks until it has done its
// work, and returns a negative number on failure.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Switches the FPGA's Ethernet side to UDP traffic (Heron, after an update).
int32_t fpgaSwitchGmacToUdp(void);

// Gives eth1 its address (Kestrel). Nobody looks at the result.
int32_t bi_fpga_eth1_config_kestrel(void);

// Sends the screen parameters over UDP (Kestrel), from the blocks of these names.
int32_t bi_fpga_load_screen_params_by_udp(const char* fpga_parameter, const char* hex_parameter);

// Programs the pending FPGA image (Wren_t507).
int32_t bi_fpga_active_update_program(void);

// Loads the FPGA's parameters (Wren_t507).
int32_t bi_fpga_load_parameter(void);

#ifdef __cplusplus
}  // extern "C"
#endif
