// The product configuration: one process-wide record, filled from the product information block and
// "/vendor/etc/product.ini".
//
// Other components link against the record: order and widths of its fields are binding. Strings are
// NUL-terminated in fixed capacity, integers signed 32-bit. Nothing guards the record: the hosting
// component parses once, before other threads use it.
#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct config_info_record {
    char product[64];
    int32_t mod_id;       // from the product information block
    int32_t mcu_fd;       // serial descriptor of the MCU link; 0 after a parse, set by the host
    int32_t fw_updating;  // non-zero while firmware is being written; set by the host
    int32_t mcu_type;
    char mcu_serial[16];
    char mcu_fw_path[128];
    char mcu_fw_version[64];
    char mcu_uart_path[128];
    int32_t mcu_baud_rate;  // bit/s
    int32_t mcu_wdt_switch;
    int32_t mcu_wdt_pulse;
    int32_t mcu_wdt_startup_type;
    char mcu_sock_path[128];
    int32_t fpga_control_gpio;  // PROG_B
    int32_t fpga_config_gpio;
    int32_t fpga_done_gpio;
    char fpga_drv_path[128];
    char fpga_fw_path[128];
    char fpga_fw_version[64];
    char fpga_parameter[64];
    char hex_parameter[64];
    char self_test_items[64];
    int32_t audio_num;
} config_info_t;

static_assert(offsetof(config_info_t, mod_id) == 64, "binding");
static_assert(offsetof(config_info_t, mcu_serial) == 80, "binding");
static_assert(offsetof(config_info_t, mcu_baud_rate) == 416, "binding");
static_assert(offsetof(config_info_t, fpga_control_gpio) == 560, "binding");
static_assert(offsetof(config_info_t, self_test_items) == 1020, "binding");
static_assert(sizeof(config_info_t) == 1088, "binding");

// Null until the first parse; never freed.
extern QUIL_EXPORT config_info_t* config_info;

// Fills the record. Returns 0, also when keys are missing (each is logged), or -1 when the record
// cannot be allocated or the product information cannot be read; the record is then all zero. A
// second call parses afresh into the same record.
QUIL_EXPORT int32_t parseConfigInfo(void);

#ifdef __cplusplus
}  // extern "C"

namespace quil::update {

// The record, or one of zeros before the first parse: its paths are empty and its lines invalid.
const config_info_t& currentConfig();

// A text of the record, terminated even where its field is not.
template <size_t kSize>
struct ConfigText {
    char text[kSize + 1] = {};
    explicit ConfigText(const char (&field)[kSize]) { memcpy(text, field, kSize); }
};

}  // namespace quil::update
#endif
