// Which items are on, and the run over them with its result file and record.
#include "selftest/self_test.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iterator>

#include "common/little_endian.h"
#include "common/log.h"
#include "common/stdout_message.h"
#include "config/config_info.h"

using quil::common::kServiceTag;
using quil::common::printFlushed;
using quil::common::putLe16;
using quil::common::putLe32;

namespace {

constexpr char kResultFile[] = "/sdcard/self_test_results.txt";
constexpr int kItems = static_cast<int>(std::size(test_option_table));
constexpr size_t kNumbersMost = 64, kLineSize = 64, kTextSize = 512;
constexpr unsigned kFailure = static_cast<unsigned>(-1);

// The record's header; the length counts what follows it: verdict, count and text.
constexpr uint32_t kRecordCommand = 0xFFFFFFF4;
constexpr size_t kZeroAt = 4, kLengthAt = 6, kVerdictAt = 8, kCountAt = 9, kTextAt = 10;

int numberOf(const char* token) {
    return static_cast<int>(std::clamp<long>(strtol(token, nullptr, 10), INT_MIN, INT_MAX));
}

// Splits the setting's text in place. Returns the count of numbers.
size_t splitNumbers(char* text, int (&numbers)[kNumbersMost]) {
    size_t count = 0;
    char* rest = nullptr;
    for (const char* token = strtok_r(text, "-", &rest); token != nullptr && count < kNumbersMost;
         token = strtok_r(nullptr, "-", &rest)) {
        numbers[count++] = numberOf(token);
    }
    return count;
}

void switchOn(int number) {
    for (test_option_t& row : test_option_table) {
        if (number != static_cast<uint8_t>(row.id)) continue;
        row.enable = 1;
        return;
    }
}

// What a run collects.
struct Run {
    char line[kLineSize] =
        {};  // not cleared between items: an item that writes nothing repeats the last line
    char text[kTextSize] = {};
    bool hasFailed = false;
};

// Cuts what does not fit.
void append(Run& run) {
    const size_t length = strnlen(run.text, kTextSize);
    const size_t added = std::min(strnlen(run.line, kLineSize), kTextSize - 1 - length);
    memcpy(run.text + length, run.line, added);
    run.text[length + added] = '\0';
}

bool runItem(Run& run, int index, const char* runner) {
    const test_option_t& row = test_option_table[index];
    printFlushed("%s Running testFunc[%d]: %s\n", runner, index, row.name);
    if (row.testFunc(row.name, run.line, kLineSize) < 0) {
        printFlushed("%s testFunc[%d]: %s failed\n", runner, index, row.name);
        run.hasFailed = true;
    }
    if (writeToFile(kResultFile, run.line) < 0) {
        printFlushed("%s writeToFile failed\n", runner);
        return false;
    }
    append(run);
    return true;
}

void writeRecord(unsigned char* result, const Run& run, size_t length, int count) {
    putLe32(result, kRecordCommand);
    putLe16(result + kZeroAt, 0);
    putLe16(result + kLengthAt, static_cast<uint16_t>(kTextAt - kVerdictAt + length));
    result[kVerdictAt] = run.hasFailed ? 1 : 0;
    result[kCountAt] = static_cast<unsigned char>(count);
    memcpy(result + kTextAt, run.text, length);
}

}  // namespace

int writeToFile(const char* path, const char* text) {
    FILE* file = path != nullptr && text != nullptr ? fopen(path, "a") : nullptr;
    if (file == nullptr) {
        QUIL_LOG_ERROR(kServiceTag, "%s Failed to open file\n", __func__);
        return -1;
    }
    fprintf(file, "%s\n", text);
    fclose(file);
    return 0;
}

int parseAndConfigTestItem(void) {
    quil::config::ConfigText setting(quil::config::currentConfig().self_test_items);
    if (!quil::config::isSet(setting.text)) {
        QUIL_LOG_ERROR(kServiceTag,
                       "%s: self_test_items not config in ini, please check ini file\n", __func__);
        return -1;
    }
    int numbers[kNumbersMost] = {};
    const size_t count = splitNumbers(setting.text, numbers);
    QUIL_LOG_INFO(kServiceTag, "%s: count = %lu\n", __func__, static_cast<unsigned long>(count));
    for (size_t i = 0; i < count; ++i) switchOn(numbers[i]);
    for (int index = 0; index < kItems; ++index) {
        QUIL_LOG_DEBUG(kServiceTag, "%s: test_option_table[%d].enable = %d\n", __func__, index,
                       test_option_table[index].enable);
    }
    return static_cast<int>(count);
}

unsigned runSelfTestAndGetResult(unsigned char* result, unsigned size) {
    if (result == nullptr) {
        QUIL_LOG_ERROR(kServiceTag, "%s: invalid NULL pointer\n", __func__);
        return kFailure;
    }
    remove(kResultFile);  // usually there is none
    const int count = parseAndConfigTestItem();
    // Without a setting the run goes on with the items that earlier runs switched on.
    if (count == 0) {
        QUIL_LOG_ERROR(kServiceTag, "%s: invalid select_test_items is 0, please check ini file.\n",
                       __func__);
        return kFailure;
    }
    printFlushed("%s select_test_items = %lu, num_test_options = %lu\n", __func__,
                 static_cast<unsigned long>(count), static_cast<unsigned long>(kItems));
    Run run;
    for (int index = 0; index < kItems; ++index) {
        if (test_option_table[index].enable == 0) continue;
        if (!runItem(run, index, __func__)) return kFailure;
    }
    const size_t length = strnlen(run.text, kTextSize);
    QUIL_LOG_DEBUG(kServiceTag, "%s: data_size = %lu\n", __func__,
                   static_cast<unsigned long>(length));
    QUIL_LOG_DEBUG(kServiceTag, "%s: total_data_size = %lu\n", __func__,
                   static_cast<unsigned long>(kTextAt + length));
    memset(result, 0, size);
    writeRecord(result, run, length, count);
    return static_cast<unsigned>(kTextAt + length);
}
