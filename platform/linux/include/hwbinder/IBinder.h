#pragma once

#include <utils/RefBase.h>

namespace android::hardware {

// An object that proxies stand for. There is no transport here: it only has an identity.
class IBinder : public virtual RefBase {};

}  // namespace android::hardware
