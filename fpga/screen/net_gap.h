// The end of a load: sub-pixel settings, and the net gap switched on.
#pragma once

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Sends the sub-pixel settings of the first `blockNum` blocks of the table, 3 s from now, and
// switches the net gap on.
QUIL_EXPORT void sendNetGapeEnable(int blockNum, const unsigned char* data);

#ifdef __cplusplus
}  // extern "C"
#endif
