// A serial port in raw mode, for the MCU link and for the board's other components. Messages go to
// standard output, not to the platform log. No state: any thread, one descriptor by one thread at a
// time.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Opens a serial device, blocking. Returns the descriptor, which the caller closes, or -1. When
// only the switch to blocking mode fails, -1 is returned and the descriptor stays open.
QUIL_EXPORT int sdk_uart_open(const char* path);

// Sets speed (`baud` in bit/s), flow control, data bits (5 to 8), stop bits (1 or 2), parity ('N',
// 'E', 'O', 'S' in either case) and raw mode with reads that return at once. `flow`: 0 none, 1
// RTS/CTS, 2 as on the board's first ports, anything else leaves it alone. A rate that the table
// lacks leaves the speed as it was. Returns 0, or -1 with the port unchanged.
QUIL_EXPORT int sdk_uart_cfg(int fd, int baud, int flow, int databits, int stopbits, int parity);

// Closes the descriptor. Returns 0.
QUIL_EXPORT int sdk_uart_close(int fd);

// Opens and configures a port for 8 data bits, no parity, 1 stop bit, no flow control; `baud` in
// bit/s. Returns the descriptor, or -1, also when only the settings fail.
QUIL_EXPORT int sdk_uart_init(const char* path, int baud);

// One write. Returns the number of bytes written, which may be less than `count`, -5 for a null
// `buf`, -1 on an error.
QUIL_EXPORT int sdk_uart_write(int fd, const void* buf, size_t count);

// One read. Returns what the read returns, or -5 for a null `buf`. A port set up by sdk_uart_cfg
// gives 0 at once when nothing has come.
QUIL_EXPORT int sdk_uart_read(int fd, uint8_t* buf, size_t count);

#ifdef __cplusplus
}  // extern "C"
#endif
