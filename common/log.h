// The one log gate of the library: every message goes through QUIL_LOG_ERROR, _INFO or _DEBUG.
//
// The level property is read afresh before each message, so that a change takes effect at the next
// message of a running service. The arguments of a message that is off are not evaluated.
#pragma once

#include <android/log.h>
#include <cutils/properties.h>

namespace quil::common {

inline constexpr char kServiceTag[] = "quil_system_hidl_service";
inline constexpr char kFirmwareUpdateTag[] = "quil_system_fw_update";
inline constexpr char kControlManagerTag[] = "quil_system_hidl_controlManager";

inline constexpr char kLogLevelProperty[] = "persist.quil.device.log.level";
inline constexpr char kDefaultLogLevel[] = "E";

inline constexpr int kLevelDebug = 4, kLevelInfo = 3, kLevelWarning = 2, kLevelError = 1;

// Reads the level property: 4 for 'D', 3 for 'I', 2 for 'W', 1 for anything else. Only the first
// character counts. Inline, because one request can pass the gate 12,000 times, and a call would
// cost half as much as the read. May change errno.
inline int get_log_level() {
    char level[PROPERTY_VALUE_MAX];  // not cleared: the read fills it
    property_get(kLogLevelProperty, level, kDefaultLogLevel);
    switch (level[0]) {
        case 'D':
            return kLevelDebug;
        case 'I':
            return kLevelInfo;
        case 'W':
            return kLevelWarning;
        default:
            return kLevelError;
    }
}

// Reads the level before an error message, which is printed at every level. Leaves errno as it is:
// such messages show it.
void readLevelBeforeError();

}  // namespace quil::common

#define QUIL_LOG_ERROR(tag, ...) \
    do { \
        ::quil::common::readLevelBeforeError(); \
        __android_log_print(ANDROID_LOG_ERROR, (tag), __VA_ARGS__); \
    } while (0)

#define QUIL_LOG_FROM(level, priority, tag, ...) \
    do { \
        if (::quil::common::get_log_level() >= (level)) { \
            __android_log_print((priority), (tag), __VA_ARGS__); \
        } \
    } while (0)

#define QUIL_LOG_INFO(tag, ...) \
    QUIL_LOG_FROM(::quil::common::kLevelInfo, ANDROID_LOG_INFO, tag, __VA_ARGS__)
#define QUIL_LOG_DEBUG(tag, ...) \
    QUIL_LOG_FROM(::quil::common::kLevelDebug, ANDROID_LOG_DEBUG, tag, __VA_ARGS__)
