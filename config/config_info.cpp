#include "config/config_info.h"

#include <quil_bi.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "common/heap_block.h"
#include "common/log.h"

using quil::common::allocateBlock;
using quil::common::HeapBlock;
using quil::common::kServiceTag;
using quil::config::isSet;

config_info_t* config_info = nullptr;

namespace {

constexpr char kFunction[] = "parseConfigInfo";
constexpr char kProductFile[] = "/vendor/etc/product.ini";
constexpr size_t kInformationSize = 2048, kModuleIdAt = 64;

enum class Rule {
    kText,         // missing: logged
    kPath,         // as kText, and logged when not set to a real path
    kAnyNumber,    // taken as it is
    kNotNegative,  // below 0: logged, replaced
    kNotZero,      // 0: logged, kept
    kPositive,     // below 1: logged, replaced
};

struct Key {
    Rule rule;
    const char* section;
    const char* key;
    size_t offset;
    size_t capacity;
    const char* message;
    int32_t substitute;
};

#define TEXT(rule, section, field, message) \
    { \
        rule, section, #field, offsetof(config_info_t, field), sizeof(config_info_t::field), \
            message, 0 \
    }
#define NUMBER(rule, section, field, message, substitute) \
    { rule, section, #field, offsetof(config_info_t, field), 0, message, substitute }

// In the order in which the keys are read and their messages logged.
constexpr Key kKeys[] = {
    TEXT(Rule::kText, "product", product, "%s: product is NULL\n"),
    // These two messages name other keys; service tools match them, so they stay.
    TEXT(Rule::kText, "block", fpga_parameter, "%s: fpga_drv_path is NULL\n"),
    TEXT(Rule::kText, "block", hex_parameter, "%s: fpga_fw_version is NULL\n"),
    TEXT(Rule::kText, "fpga", fpga_fw_path, "%s: fpga_fw_path is NULL\n"),
    TEXT(Rule::kText, "fpga", fpga_drv_path, "%s: fpga_drv_path is NULL\n"),
    TEXT(Rule::kText, "fpga", fpga_fw_version, "%s: fpga_fw_version is NULL\n"),
    TEXT(Rule::kText, "mcu", mcu_fw_path, "%s: mcu_fw_path is NULL\n"),
    TEXT(Rule::kText, "mcu", mcu_fw_version, "%s: mcu_fw_version is NULL\n"),
    NUMBER(Rule::kNotNegative, "mcu", mcu_type, "%s: invalid mcu_type = %d, use default 1\n", 1),
    TEXT(Rule::kText, "mcu", mcu_serial, "%s: mcu_serial is NULL\n"),
    TEXT(Rule::kPath, "mcu", mcu_sock_path, "%s: mcu_sock_path is NULL\n"),
    TEXT(Rule::kPath, "mcu", mcu_uart_path, "%s: mcu_uart_path is NULL\n"),
    TEXT(Rule::kText, "self_test", self_test_items, "%s: self_test_items is NULL\n"),
    NUMBER(Rule::kAnyNumber, "mcu", mcu_baud_rate, nullptr, 0),
    NUMBER(Rule::kNotZero, "mcu_wdt", mcu_wdt_switch, "%s: invalid mcu_switch_gpio_id = %ld\n", 0),
    NUMBER(Rule::kNotZero, "mcu_wdt", mcu_wdt_pulse, "%s: invalid mcu_pulse_gpio_id = %ld\n", 0),
    NUMBER(Rule::kNotZero, "mcu_wdt", mcu_wdt_startup_type,
           "%s: invalid mcu_startup_gpio_id = %ld\n", 0),
    NUMBER(Rule::kPositive, "fpga", fpga_control_gpio,
           "%s: invalid fpga_control_gpio_id = %d, use default 999\n", 999),
    NUMBER(Rule::kPositive, "fpga", fpga_config_gpio,
           "%s: invalid fpga_config_gpio_id = %d, use default 999\n", 999),
    NUMBER(Rule::kPositive, "fpga", fpga_done_gpio,
           "%s: invalid fpga_done_gpio_id = %d, use default 999\n", 999),
    // A 0 is reported as invalid and replaced by 0: deliberate.
    NUMBER(Rule::kPositive, "self_test", audio_num, "%s: invalid audio_num = %d, use default 0\n",
           0),
};

#undef TEXT
#undef NUMBER

char* fieldOf(config_info_t& info, const Key& key) {
    return reinterpret_cast<char*>(&info) + key.offset;
}

char g_value[size_t{64} * 1024];

// Where the INI interface copies a value without asking for room: no value is longer than its file.
// Only a long file needs heap. Without it the text is null, and every text counts as missing.
class Scratch {
  public:
    Scratch() {
        struct stat64 file = {};
        if (stat64(kProductFile, &file) != 0) return;
        if (file.st_size < static_cast<int64_t>(sizeof(g_value))) return;
        const uint64_t size = static_cast<uint64_t>(file.st_size) + sizeof(g_value);
        if (size <= PTRDIFF_MAX) mHeap = allocateBlock<char>(static_cast<size_t>(size));
        if (mHeap == nullptr) {
            QUIL_LOG_ERROR(kServiceTag, "%s: no memory for the texts of %s\n", kFunction,
                           kProductFile);
        }
        mText = mHeap.get();
        mSize = static_cast<size_t>(size);
    }
    char* text() { return mText; }
    size_t size() const { return mSize; }

  private:
    HeapBlock<char> mHeap;
    char* mText = g_value;
    size_t mSize = sizeof(g_value);
};

void copyBounded(char* field, size_t capacity, const char* text, size_t textMax) {
    const size_t length = strnlen(text, textMax);
    const size_t copied = length < capacity ? length : capacity - 1;
    memcpy(field, text, copied);
    field[copied] = '\0';
}

void readText(config_info_t& info, int32_t handle, const Key& key, Scratch& scratch) {
    char* field = fieldOf(info, key);
    char* text = scratch.text();
    if (text != nullptr) text[0] = '\0';
    if (text == nullptr || bi_common_ini_get_string(handle, key.section, key.key, text) < 0) {
        QUIL_LOG_ERROR(kServiceTag, key.message, kFunction);
    } else {
        copyBounded(field, key.capacity, text, scratch.size());
    }
    if (key.rule == Rule::kPath && !isSet(field)) {
        QUIL_LOG_ERROR(kServiceTag, "%s:config_info->%s is not set, need to check ini file.\n",
                       kFunction, key.key);
    }
}

void readNumber(config_info_t& info, int32_t handle, const Key& key) {
    int32_t value = bi_common_ini_get_int(handle, key.section, key.key);
    const bool refused =
        (key.rule == Rule::kNotNegative && value < 0) || (key.rule == Rule::kPositive && value < 1);
    if (refused) {
        QUIL_LOG_ERROR(kServiceTag, key.message, kFunction, value);
        value = key.substitute;
    } else if (key.rule == Rule::kNotZero && value == 0) {
        QUIL_LOG_ERROR(kServiceTag, key.message, kFunction, static_cast<long>(value));
    }
    memcpy(fieldOf(info, key), &value, sizeof(value));
}

bool readProductInformation(config_info_t& info) {
    char block[kInformationSize + 1] = {};  // one more byte, so that the text always ends inside
    if (bi_info_get_product_info(block) != 0) {
        QUIL_LOG_ERROR(kServiceTag, "%s:parse product info failed!\n", kFunction);
        return false;
    }
    block[kInformationSize] = '\0';
    info.mod_id = static_cast<int32_t>(strtol(block + kModuleIdAt, nullptr, 10));
    QUIL_LOG_INFO(kServiceTag, "%s: mod_id: %d\n", kFunction, info.mod_id);
    return true;
}

void readProductFile(config_info_t& info) {
    Scratch scratch;
    const int32_t handle = bi_common_load_ini_file(kProductFile);
    for (const Key& key : kKeys) {
        if (key.capacity > 0) {
            readText(info, handle, key, scratch);
        } else {
            readNumber(info, handle, key);
        }
    }
}

void logSummary(const config_info_t& info) {
    QUIL_LOG_DEBUG(
        kServiceTag,
        "%s: product_name = %s, mcu_fw_path = %s, mcu_fw_version = %s, fpga_fw_path = %s, "
        "fpga_drv_path = %s, fpga_fw_version = %s, mcu_type = %d, mcu_serial = %s, "
        "mcu_sock_path = %s, mcu_uart_path = %s,mcu_baud_rate = %d, mcu_switch_gpio_id = %d, "
        "mcu_pulse_gpio_id = %d, mcu_startup_gpio_id = %d, fpga_control_gpio_id = %d, "
        "fpga_config_gpio_id = %d, fpga_done_gpio_id = %d, mod_id = %d, self_test_items = %s\n",
        kFunction, info.product, info.mcu_fw_path, info.mcu_fw_version, info.fpga_fw_path,
        info.fpga_drv_path, info.fpga_fw_version, info.mcu_type, info.mcu_serial,
        info.mcu_sock_path, info.mcu_uart_path, info.mcu_baud_rate, info.mcu_wdt_switch,
        info.mcu_wdt_pulse, info.mcu_wdt_startup_type, info.fpga_control_gpio,
        info.fpga_config_gpio, info.fpga_done_gpio, info.mod_id, info.self_test_items);
}

}  // namespace

int32_t parseConfigInfo(void) {
    QUIL_LOG_DEBUG(kServiceTag, "%s: is called\n", __func__);
    if (config_info == nullptr) {
        config_info = static_cast<config_info_t*>(malloc(sizeof(config_info_t)));
        if (config_info == nullptr) {
            QUIL_LOG_ERROR(kServiceTag, "%s:config_info malloc failed!\n", __func__);
            return -1;
        }
    }
    memset(config_info, 0, sizeof(*config_info));
    if (!readProductInformation(*config_info)) return -1;
    readProductFile(*config_info);
    logSummary(*config_info);
    return 0;
}

namespace quil::config {

const config_info_t& currentConfig() {
    static constexpr config_info_t kUnparsed = {};
    return config_info != nullptr ? *config_info : kUnparsed;
}

bool isSet(const char* text) { return text[0] != '\0' && strstr(text, "UNDEF") == nullptr; }

}  // namespace quil::config
