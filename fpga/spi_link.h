// The SPI link to the FPGA's registers and memory, and the state reads that go over it.
//
// Each `write` or `read` on "/dev/fpga_spi" is one SPI transaction; the device is opened for each.
// Results below 0 are failures, each with one error line in the log; nothing is retried. Nothing is
// locked: one caller at a time.
#pragma once

#include <stdint.h>

#include "common/export.h"

#ifdef __cplusplus
namespace quil::fpga {

// Writes one byte to a register. Returns what the transfer returned.
int writeRegister(uint32_t address, uint8_t value);

// Sends a prepared frame of a table, as spi_send_data does.
int sendFixedFrame(const uint8_t* frame, unsigned size);

}  // namespace quil::fpga

extern "C" {
#endif

// Sends one prepared write transaction of `count` bytes, header and trailing zero included (see
// fpga/spi_frame.h), 10 ms after opening the device. Returns the bytes written, -1 when the device
// cannot be opened, or the negative result of the write.
QUIL_EXPORT int spi_send_data(void* buf, unsigned count);

// Reads `len` bytes of state to `data_buf`: 1 in the first byte when the SGMII clock is there, or
// the SGMII negotiation complete. Each returns the result of the read (`len` + 6 when it is
// complete), or -1 without a buffer, memory or device.
QUIL_EXPORT int readFpgaSgmiiClockState(unsigned char* data_buf, unsigned len);
QUIL_EXPORT int readFpgaSgmiiNegotiationState(unsigned char* data_buf, unsigned len);

// Reads the DDR's state: 1 is good, anything else is not ready. `state` keeps its value on failure.
// Returns the result of the read, or -1 when `state` is null, or without memory or device.
QUIL_EXPORT int readFpgaDdrState(unsigned char* state);

// Pulses the FPGA's transmit and receive resets. Returns the result of the last of its four
// writes: 7, or negative. Failures of the first three are only logged.
QUIL_EXPORT int sendFpgaTxRxReset(void);

// Returns 1 when the PHY reports link, 0 when it does not, -1 when it cannot be asked.
QUIL_EXPORT int readRtl8211fsPhyLink(void);

#ifdef __cplusplus
}  // extern "C"
#endif
