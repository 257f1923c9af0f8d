// The sending half of the exchange with the MCU. Nothing here reads: the answer is collected by the
// hosting component's reader and comes back through the service's wakeUp.
//
// The functions share g_n_lable without a lock: callers in one process send one at a time.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "common/export.h"
#include "mculink/frame.h"

#ifdef __cplusplus
extern "C" {
#endif

// Frames one request and writes it to the serial descriptor `fd` in one `write`; does not wait for
// the answer. `is_write` is 1 for a set, 0 for a get (bit 0 counts). `payload` stays the caller's;
// it may be null: `len` zero bytes are then sent. Returns the number of bytes written, or a
// negative value: descriptor out of memory, payload over 4112 bytes, failed write.
QUIL_EXPORT int send_mcu_message(uint32_t cmd, uint8_t is_write, const uint8_t* payload,
                                 uint16_t len, int fd);

// The same for a filled descriptor, which stays the caller's. Takes the next label.
QUIL_EXPORT int quil_request(const uint8_t* payload, uint16_t len, quil_request_param_t* param,
                             int fd);

// One write of `count` bytes; a short write is returned as it is. Negative: the write's own result.
QUIL_EXPORT int quil_physical_send(const uint8_t* frame, size_t count, int fd);

// Dumps `len` bytes to the log at level D.
QUIL_EXPORT void printsend(const uint8_t* data, unsigned len);

#ifdef __cplusplus
}  // extern "C"
#endif
