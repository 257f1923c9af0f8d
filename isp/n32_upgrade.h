// Programming an N32 part through its maker's UART boot loader.
//
// Requests, multi-byte fields little-endian, L the payload length in bytes:
//
//   offset  size  field
//        0     2  0xAA 0x55
//        2     1  command
//        3     1  0
//        4     2  L
//        6     4  parameter
//       10     L  payload
//   10 + L     1  XOR of all bytes before it
//
// Answers start with 0xAA 0x55 and end with the status 0xA0 0x00 and the XOR of all bytes before
// it; 60 bytes to "get info", 9 bytes to everything else. One session at a time, on one thread.
#pragma once

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Writes the image at `file_path` over the device `uart_path` (9600 8N1), and restarts the MCU into
// its application. Blocks for the whole session. Returns 0, -1 (the port cannot be opened, or no
// memory) or 255 (a step failed).
//
// What boot loaders in the field depend on: blocks are counted in 8 bits, so that images above
// 32640 bytes go out in part; an image whose size is a multiple of 128 goes out without its last
// block; the checksum over all blocks goes on from one upgrade to the next in a process, and the
// boot loader's opinion of it is not asked for.
QUIL_EXPORT int n32_uart_isp_upgrade(const char* file_path, const char* uart_path);

#ifdef __cplusplus
}  // extern "C"
#endif
