// The board's factory self-test: nine items, switched on from the product configuration.
//
// Other components link against the table and the functions: names, order and widths are binding.
// Nothing guards the table or the result file: one run at a time, on the caller's thread.
#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include "common/export.h"

#ifdef __cplusplus
extern "C" {
#endif

// Formats one line "NAME:OK\r\n" or "NAME:Error\r\n" into `resultStr`, at most `size` bytes with
// the terminator. Returns 0, also when the part is faulty, or -1 when an argument is unusable.
typedef int (*self_test_func_t)(const char* testName, char* resultStr, unsigned size);

// A row of test_option_table: four 32-bit words on the target.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): the order is binding
typedef struct test_option {
    uint32_t id;  // 1 to 9; the low byte is compared with the configuration's numbers
    const char* name;
    self_test_func_t testFunc;  // the item
    uint8_t enable;             // 1: runs; never cleared again in the life of the process
    uint8_t reserved[3];        // zero
} test_option_t;

static_assert(offsetof(test_option_t, name) == sizeof(void*), "binding");
static_assert(offsetof(test_option_t, enable) == 3 * sizeof(void*), "binding");
static_assert(sizeof(void*) != 4 || sizeof(test_option_t) == 16, "four 32-bit words");

// The nine items, in the order in which they run. Items switched on stay on for the life of the
// process.
extern QUIL_EXPORT test_option_t test_option_table[9];

// The item of the real-time clock. Arguments and result of every item are those of
// self_test_func_t.
QUIL_EXPORT int checkRtcState(const char* testName, char* resultStr, unsigned size);

// The item of the audio codecs, `audio_num` of them from 0 on. One line for all: that of the last
// one.
QUIL_EXPORT int checkES8316State(const char* testName, char* resultStr, unsigned size);

// The item of the Wi-Fi access point.
QUIL_EXPORT int checkWifiApState(const char* testName, char* resultStr, unsigned size);

// The item of the Wi-Fi station.
QUIL_EXPORT int checkWifiStaState(const char* testName, char* resultStr, unsigned size);

// The item of the clock chip.
QUIL_EXPORT int checkIDT6965State(const char* testName, char* resultStr, unsigned size);

// Placeholders: they probe nothing and always say the same, the first and the last "OK", the others
// "Error".
QUIL_EXPORT int testItem6(const char* testName, char* resultStr, unsigned size);
QUIL_EXPORT int testItem7(const char* testName, char* resultStr, unsigned size);
QUIL_EXPORT int testItem8(const char* testName, char* resultStr, unsigned size);
QUIL_EXPORT int testItem9(const char* testName, char* resultStr, unsigned size);

// Appends `text` and a newline to the file, which is created when it is missing. Returns 0, or -1
// when it cannot be opened.
QUIL_EXPORT int writeToFile(const char* path, const char* text);

// Switches on the items that the configuration names. Returns how many numbers it holds, or -1 when
// the setting is missing. Unknown numbers are counted and switch on nothing.
QUIL_EXPORT int parseAndConfigTestItem(void);

// Runs the items that are on and writes a record of 10 bytes and their lines to `result`, which
// must hold 522 bytes at least: `size` says only how many bytes are zeroed first. Returns the
// record's length, or -1 (as unsigned) without a buffer, a selection or a result file.
QUIL_EXPORT unsigned runSelfTestAndGetResult(unsigned char* result, unsigned size);

#ifdef __cplusplus
}  // extern "C"
#endif
