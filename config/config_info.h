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

// What `config_info` points to. Fields have the names of their keys in the product file; a missing
// text is empty, and a missing GPIO line is 999.
typedef struct config_info_record {
    char product[64];     // product model
    int32_t mod_id;       // module id, from the product information block
    int32_t mcu_fd;       // serial descriptor of the MCU link; 0 after a parse, set by the host
    int32_t fw_updating;  // while firmware is being written 1 (MCU) or 2 (FPGA), set by the host
    int32_t mcu_type;
    char mcu_serial[16];           // the MCU's family, for its boot loader
    char mcu_fw_path[128];         // MCU image
    char mcu_fw_version[64];       // the version of that image
    char mcu_uart_path[128];       // device of the MCU link
    int32_t mcu_baud_rate;         // bit/s
    int32_t mcu_wdt_switch;        // watchdog
    int32_t mcu_wdt_pulse;         // watchdog
    int32_t mcu_wdt_startup_type;  // watchdog
    char mcu_sock_path[128];
    int32_t fpga_control_gpio;  // line number, PROG_B
    int32_t fpga_config_gpio;   // line number
    int32_t fpga_done_gpio;     // line number, DONE
    char fpga_drv_path[128];    // driver that loads the FPGA
    char fpga_fw_path[128];     // FPGA image
    char fpga_fw_version[64];
    char fpga_parameter[64];   // name of the block with the FPGA's parameters
    char hex_parameter[64];    // name of the block with the hex parameters
    char self_test_items[64];  // item numbers joined by hyphens
    int32_t audio_num;         // number of audio codecs
} config_info_t;

static_assert(offsetof(config_info_t, mod_id) == 64, "binding");
static_assert(offsetof(config_info_t, mcu_serial) == 80, "binding");
static_assert(offsetof(config_info_t, mcu_baud_rate) == 416, "binding");
static_assert(offsetof(config_info_t, fpga_control_gpio) == 560, "binding");
static_assert(offsetof(config_info_t, self_test_items) == 1020, "binding");
static_assert(sizeof(config_info_t) == 1088, "binding");

// Null until the first parse, which allocates the record; never freed.
extern QUIL_EXPORT config_info_t* config_info;

// Fills the record. Returns 0, also when keys are missing (each is logged), or -1 when the record
// cannot be allocated or the product information cannot be read; the record is then all zero. A
// second call parses afresh into the same record.
QUIL_EXPORT int32_t parseConfigInfo(void);

#ifdef __cplusplus
}  // extern "C"

namespace quil::config {

// The record, or one of zeros before the first parse: its paths are empty and its lines invalid.
const config_info_t& currentConfig();

// A text of the record, terminated even where its field is not.
template <size_t kSize>
struct ConfigText {
    char text[kSize + 1] = {};
    explicit ConfigText(const char (&field)[kSize]) { memcpy(text, field, kSize); }
};

// False for an empty text and for the "UNDEF" that product files have in place of a value.
bool isSet(const char* text);

}  // namespace quil::config
#endif
