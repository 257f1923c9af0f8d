// The nine items and what each says. A faulty part shows only in the item's line.
#include <quil_bi.h>
#include <stdio.h>

#include <algorithm>

#include "common/log.h"
#include "config/config_info.h"
#include "selftest/self_test.h"

using quil::common::kServiceTag;

test_option_t test_option_table[9] = {
    {1, "RTC", checkRtcState, 0, {}},         {2, "ES8316", checkES8316State, 0, {}},
    {3, "WIFI AP", checkWifiApState, 0, {}},  {4, "WIFI STA", checkWifiStaState, 0, {}},
    {5, "IDT6965", checkIDT6965State, 0, {}}, {6, "Test LORA", testItem6, 0, {}},
    {7, "Test GMAC", testItem7, 0, {}},       {8, "Test TCP", testItem8, 0, {}},
    {9, "Test UDP", testItem9, 0, {}},
};

namespace {

constexpr int32_t kClockBus = 0, kClockChipBus = 0;
constexpr int32_t kCodecsMost = 256;  // they are counted in eight bits

// Where an item's line goes, and who speaks.
struct Line {
    const char* function;
    const char* testName;
    char* text;
    unsigned size;
};

bool isUsable(const Line& line) {
    if (line.testName != nullptr && line.text != nullptr) return true;
    QUIL_LOG_ERROR(kServiceTag, "%s: invalid testName or resultStr is NULL\n", line.function);
    return false;
}

int write(const Line& line, bool isHealthy) {
    snprintf(line.text, line.size, "%s:%s\r\n", line.testName, isHealthy ? "OK" : "Error");
    return 0;
}

int writeProbed(const Line& line, int32_t probed) {
    if (probed != 0) QUIL_LOG_ERROR(kServiceTag, "%s: test failed\n", line.function);
    return write(line, probed == 0);
}

int writeFixed(const Line& line, bool isHealthy) {
    return isUsable(line) ? write(line, isHealthy) : -1;
}

}  // namespace

int checkRtcState(const char* testName, char* resultStr, unsigned size) {
    const Line line = {__func__, testName, resultStr, size};
    return isUsable(line) ? writeProbed(line, bi_i2c_get_rtc_state(kClockBus)) : -1;
}

int checkES8316State(const char* testName, char* resultStr, unsigned size) {
    const Line line = {__func__, testName, resultStr, size};
    if (!isUsable(line)) return -1;
    const int32_t codecs = config_info != nullptr ? config_info->audio_num : 0;
    if (codecs < 1) {
        QUIL_LOG_ERROR(kServiceTag,
                       "%s: config_info is NULL or audio_num id %d, please check ini file\n",
                       __func__, codecs);
        return -1;
    }
    for (int32_t index = 0; index < std::min(codecs, kCodecsMost); ++index) {
        writeProbed(line, bi_i2c_get_audio_state(index));
    }
    return 0;
}

int checkWifiApState(const char* testName, char* resultStr, unsigned size) {
    const Line line = {__func__, testName, resultStr, size};
    return isUsable(line) ? writeProbed(line, bi_network_get_ap_state()) : -1;
}

int checkWifiStaState(const char* testName, char* resultStr, unsigned size) {
    const Line line = {__func__, testName, resultStr, size};
    return isUsable(line) ? writeProbed(line, bi_network_get_sta_state()) : -1;
}

int checkIDT6965State(const char* testName, char* resultStr, unsigned size) {
    const Line line = {__func__, testName, resultStr, size};
    return isUsable(line) ? writeProbed(line, bi_i2c_get_clock_chip_state(kClockChipBus)) : -1;
}

int testItem6(const char* testName, char* resultStr, unsigned size) {
    return writeFixed({__func__, testName, resultStr, size}, true);
}

int testItem7(const char* testName, char* resultStr, unsigned size) {
    return writeFixed({__func__, testName, resultStr, size}, false);
}

int testItem8(const char* testName, char* resultStr, unsigned size) {
    return writeFixed({__func__, testName, resultStr, size}, false);
}

int testItem9(const char* testName, char* resultStr, unsigned size) {
    return writeFixed({__func__, testName, resultStr, size}, true);
}
