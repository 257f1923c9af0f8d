// The host's second Ethernet interface, eth1, up to the FPGA: PHY, driver, address, registers,
// resets and link.
//
// Exit codes of shell commands are ignored: only the SGMII clock, the reset pulse and the PHY's
// link decide. Nothing else may use eth1 meanwhile.
#pragma once

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Reloads the Ethernet driver. Returns 0.
QUIL_EXPORT int fpgaDwmacConfig(void);

// Gives eth1 its address. Returns 0.
QUIL_EXPORT int fpgaEthConfig(void);

// Sets the PHY's registers. Returns 0.
QUIL_EXPORT int fpgaPhyConfig(void);

// Pulses the PHY's reset line, 700 ms in all. Returns 0, or -1 when the line cannot be driven.
QUIL_EXPORT int reset8211FS(void);

// One attempt, of about a second. Returns 0 when the link is up, -1 otherwise.
QUIL_EXPORT int fpgaPhySgmiiConfig(void);

// Up to five attempts. Returns 0 also when none came to a link: that is only logged.
QUIL_EXPORT int fpgaNetworkConfig(void);

#ifdef __cplusplus
}  // extern "C"
#endif
