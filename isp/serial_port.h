// The serial line over which the MCU's boot loader is programmed. It is not the UART of the MCU
// link: the functions here work on the port in `fd`, one session at a time, on one thread.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "common/export.h"

#ifdef __cplusplus
namespace quil::isp {

// What mcu_serial_read gives.
inline constexpr int kReadComplete = 0, kReadTimedOut = 3;

// One write to the port; returns what `write` returns. A failure is logged under the name
// mcu_serial_write, whoever writes: readers of field logs know it by that name.
int writeToPort(const uint8_t* data, size_t count);

}  // namespace quil::isp

extern "C" {
#endif

// -1 at load. Holds the port of MCU programming from its first opening on, or what a failed opening
// gave (-1); it is never set back after a close. Other components may use it as well. It is not the
// descriptor of the MCU link, which is `config_info->mcu_fd`. Not guarded: one programming session
// at a time, on one thread.
extern QUIL_EXPORT int32_t fd;

// Opens `path` into `fd` (also a failed opening's result) and sets speed (`baud` in bit/s), data
// bits (7 or 8), stop bits (1 or 2) and parity ('N', 'E', 'O', 'S', either case). Returns 0, or -1;
// a port whose settings failed stays open in `fd`.
QUIL_EXPORT int mcu_serial_init(const char* path, int baud, int databits, int stopbits, int parity);

// Sets a rate of the table (50 to 230400, and 1000000 bit/s) and drops what is queued in both
// directions. `fd` is the argument, not the slot. Returns 0, or -1.
QUIL_EXPORT int mcu_set_baudrate(int fd, unsigned baud);

// Sets the character format, as mcu_serial_init takes it, and raw mode with reads that return at
// once. `fd` is the argument, not the slot. Returns 0, -1 (attributes or data bits), -2 (parity),
// -3 (stop bits) or -4 (the setting itself).
QUIL_EXPORT int mcu_set_parity(int fd, int databits, int stopbits, int parity);

// Closes `fd`, which keeps its number. Returns what `close` returns.
QUIL_EXPORT int mcu_serial_close(void);

// One write of `count` bytes. Returns the number written, or 2 when the write fails.
QUIL_EXPORT int mcu_serial_write(const uint8_t* buf, unsigned count);

// Reads exactly `len` bytes. Returns 0, or 3 after 100 idle rounds of 10 ms in the whole call; what
// came until then is in `buf`.
QUIL_EXPORT int mcu_serial_read(void* buf, int len);

// Waits up to 1 s for input, then reads exactly `len` bytes without a pause. Returns 1, or 4 (the
// wait failed), 5 (nothing came), 3 (the line went idle).
QUIL_EXPORT int mcu_serial_read_select(uint8_t* buf, int len);

#ifdef __cplusplus
}  // extern "C"
#endif
