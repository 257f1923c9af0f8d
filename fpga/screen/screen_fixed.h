// What a load sends for every screen alike.
#pragma once

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Sends the registers that are the same for every screen, then single bytes of the first
// `blockNum` blocks of the table.
QUIL_EXPORT void sendFixedParameter(int blockNum, const unsigned char* data);

#ifdef __cplusplus
}  // extern "C"
#endif
