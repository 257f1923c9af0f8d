// The board's closed information libraries (libquilsdk, libquilsdkcommon), as far as the service
// uses them. Only declarations: the libraries come with the board.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Loads an INI file. Returns a 32-bit handle for the look-ups below; a failed load shows only in
// them.
int32_t bi_common_load_ini_file(const char* path);

// Copies the value of `key` in `section`, NUL-terminated, to `dest`. No capacity is passed: `dest`
// must have room for the longest line of the file. Returns a negative number when the key is
// missing.
int32_t bi_common_ini_get_string(int32_t handle, const char* section, const char* key, char* dest);

// Returns the value of an integer key. A missing key has no result of its own.
int32_t bi_common_ini_get_int(int32_t handle, const char* section, const char* key);

// Fills the product information block (2048 bytes, zeroed by the caller). Returns 0 on success. At
// byte 64 stands the module id as NUL-terminated decimal text.
int32_t bi_info_get_product_info(void* block);

// Probes of the self-test. Each returns 0 when the part is healthy, and anything else when it is
// not.
int32_t bi_i2c_get_rtc_state(int32_t bus);
int32_t bi_i2c_get_audio_state(int32_t codec);  // codecs count from 0
int32_t bi_i2c_get_clock_chip_state(int32_t bus);
int32_t bi_network_get_ap_state(void);
int32_t bi_network_get_sta_state(void);

#ifdef __cplusplus
}
#endif
