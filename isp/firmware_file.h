// The files of a programming session: the firmware image, and what a session reads back. Any
// thread.
#pragma once

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// The size in bytes, 0 for a file that does not exist or cannot be read. Negative from 2 GiB on.
QUIL_EXPORT int file_size(const char* path);

// Reads `n` bytes to `buf`. Returns 0, or 15: no such file, or one shorter than `n`, whose bytes
// are then in `buf`.
QUIL_EXPORT int file_read(const char* path, void* buf, int n);

// Writes `n` bytes. Returns 0, or 15 when the file cannot be opened.
QUIL_EXPORT int file_write(const char* path, const void* buf, unsigned n);

#ifdef __cplusplus
}  // extern "C"
#endif
