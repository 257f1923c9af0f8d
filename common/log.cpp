#include "common/log.h"

#include <errno.h>

namespace quil::common {

void readLevelBeforeError() {
    const int callersErrno = errno;
    get_log_level();
    errno = callersErrno;
}

}  // namespace quil::common
