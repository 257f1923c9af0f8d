// The one log gate of the library: every message goes through QUIL_LOG_ERROR, _INFO or _DEBUG.
//
// The level property is read afresh before each message, so that a change takes effect at the next
// message of a running service. The arguments of a message that is off are not evaluated.
#pragma once

#include <android/log.h>

namespace quil::common {

inline constexpr char kServiceTag[] = "quil_system_hidl_service";
inline constexpr char kFirmwareUpdateTag[] = "quil_system_fw_update";
inline constexpr char kControlManagerTag[] = "quil_system_hidl_controlManager";

inline constexpr char kLogLevelProperty[] = "persist.quil.device.log.level";
inline constexpr char kDefaultLogLevel[] = "E";

// Reads the level property: 4 for 'D', 3 for 'I', 2 for 'W', 1 for anything else. Only the first
// character counts.
int get_log_level();

// Whether a message of this Android priority is to be printed now. Errors always are. Leaves errno
// as it is: messages show it.
bool isLogged(int priority);

}  // namespace quil::common

#define QUIL_LOG(priority, tag, ...) \
    do { \
        if (::quil::common::isLogged(priority)) { \
            __android_log_print((priority), (tag), __VA_ARGS__); \
        } \
    } while (0)

#define QUIL_LOG_ERROR(tag, ...) QUIL_LOG(ANDROID_LOG_ERROR, tag, __VA_ARGS__)
#define QUIL_LOG_INFO(tag, ...) QUIL_LOG(ANDROID_LOG_INFO, tag, __VA_ARGS__)
#define QUIL_LOG_DEBUG(tag, ...) QUIL_LOG(ANDROID_LOG_DEBUG, tag, __VA_ARGS__)
