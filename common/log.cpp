#include "common/log.h"

#include <cutils/properties.h>
#include <errno.h>

namespace quil::common {

namespace {
constexpr int kLevelDebug = 4, kLevelInfo = 3, kLevelWarning = 2, kLevelError = 1;
}

int get_log_level() {
    char level[PROPERTY_VALUE_MAX];  // not cleared: the read fills it, before every message
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

bool isLogged(int priority) {
    const int callersErrno = errno;  // reading a property may change it
    const int level = get_log_level();
    errno = callersErrno;
    if (priority >= ANDROID_LOG_ERROR) return true;
    if (priority == ANDROID_LOG_INFO) return level >= kLevelInfo;
    return level >= kLevelDebug;
}

}  // namespace quil::common
