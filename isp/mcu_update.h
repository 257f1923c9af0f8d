// Whether the MCU has to be programmed, and the programming: the running MCU's version is asked for
// over its open link and compared with the image that ships with the system.
//
// The functions block their caller, for 500 ms up to several programming runs. The hosting
// component keeps fw_updating raised around them and closes the link's old descriptor.
#pragma once

#include <stdint.h>

#include "common/export.h"

#ifdef __cplusplus
namespace quil::isp {

// What a version text needs room for; the text itself has up to 15 characters.
inline constexpr int kMcuVersionSize = 92;

// The version that this flow programmed last.
inline constexpr char kMcuVersionProperty[] = "persist.quil.mcu_fw_version";

}  // namespace quil::isp

extern "C" {
#endif

// Opens the MCU link at the configured path and rate, 8N1, blocking. Returns its descriptor, which
// is the caller's and not stored in `config_info`, or -1.
QUIL_EXPORT int32_t serialInit(void);

// Asks the MCU for its firmware version. `version`: 92 bytes, filled by the caller; the first 15
// are overwritten, with an empty text when no answer came. Blocks for 500 ms. Returns 0, or -1 when
// `version` is null or the question could not be written.
QUIL_EXPORT int32_t getMcuFwVersion(int32_t fd, char* version);

// Returns 1 when the MCU's version is not the shipped one, else 0. `fd`: the open MCU link, or
// negative when there is none. Where the MCU cannot be asked the version programmed last stands for
// its own.
QUIL_EXPORT int32_t checkMcuFwVersion(int32_t fd);

// Programs the configured image, in up to five attempts, and remembers its version in the property
// "persist.quil.mcu_fw_version". Returns 0 or -1.
QUIL_EXPORT int32_t doMcuUpdateByIsp(void);

// Programs the MCU where it has to be, and opens the link again. `fd`: on entry the open link,
// afterwards its new descriptor, or -1. Returns 0 after that; -1 otherwise, also when no update was
// needed.
QUIL_EXPORT int32_t mcuFwUpdate(int32_t* fd);

#ifdef __cplusplus
}  // extern "C"
#endif
