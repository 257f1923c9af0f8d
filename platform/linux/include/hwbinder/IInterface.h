#pragma once

#include <hwbinder/Binder.h>

namespace android::hardware {

// The base of every proxy; the proxy itself says that it is remote, and has the calls.
template <typename INTERFACE>
class BpInterface : public INTERFACE, public BpHwRefBase {
  public:
    explicit BpInterface(const sp<IBinder>& remote) : BpHwRefBase(remote) {}
};

}  // namespace android::hardware
