// The host's second Ethernet interface, eth1, up to the FPGA: PHY, driver, address, registers,
// resets and link.
//
// Shell commands are not looked at for their outcome: only the SGMII clock, the reset pulse and the
// PHY's link decide. Reloads the Ethernet driver: nothing else may use eth1 meanwhile.
#pragma once

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Each returns 0, whatever its commands came to.
QUIL_EXPORT int fpgaDwmacConfig(void);  // reloads the Ethernet driver
QUIL_EXPORT int fpgaEthConfig(void);    // gives eth1 its address
QUIL_EXPORT int fpgaPhyConfig(void);    // sets the PHY's registers

// Pulses the PHY's reset line. Returns 0, or -1 when the line cannot be driven.
QUIL_EXPORT int reset8211FS(void);

// One attempt. Returns 0 when the link is up, -1 otherwise.
QUIL_EXPORT int fpgaPhySgmiiConfig(void);

// Up to five attempts. Returns 0 also when none came to a link: that is only logged.
QUIL_EXPORT int fpgaNetworkConfig(void);

#ifdef __cplusplus
}  // extern "C"
#endif
