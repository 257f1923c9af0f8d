// The LED screen's parameters: blocks in the raw partition "/dev/block/by-name/screen", written
// into the FPGA over SPI.
//
// The partition, 2 MiB at most, multi-byte fields most significant byte first:
//
//   offset  size  field
//        0     4  block count, 0 to 60
//        4        the blocks, back to back: address (4), data length (4), neither of them 0, data
//
// The data parts are packed one behind the other into a second buffer of 2 MiB, which the steps of
// a load take as `data`; they read zeros past its end. Failed transfers are ignored: a load always
// runs to its end. The tables are shared by all and not guarded: one load at a time.
#pragma once

#include <stdint.h>

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// What the network side last received, written by its thread; byte order and content are those of
// the network protocol. fpgaLoadScreenParamsBySpi waits for its first answer here.
extern QUIL_EXPORT uint8_t buffer[1056];

// Reads the partition and writes all of it to the FPGA. Returns 0, or -1 when the partition cannot
// be read or holds no block. Blocks for seconds: 10 ms a transfer, 3 s for the net gap, up to 4 s
// for the network side.
QUIL_EXPORT int fpgaLoadScreenParamsBySpi(void);

#ifdef __cplusplus
}  // extern "C"
#endif
