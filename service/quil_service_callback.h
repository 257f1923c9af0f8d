// A callback for components of the service's own process: it may be registered and does nothing.
#pragma once

#include <quil/hardware/quilservicemanager/1.0/IQuilServiceCallback.h>

#include "common/export.h"

namespace quil::hardware::quilservicemanager::implementation {

class QUIL_EXPORT QuilServiceCallback : public V1_0::IQuilServiceCallback {
  public:
    // Both without effect.
    QuilServiceCallback();
    ~QuilServiceCallback() override;
    // Ignores `data`.
    ::android::hardware::Return<void> hwNotify(
        const ::android::hardware::hidl_vec<uint8_t>& data) override;
};

}  // namespace quil::hardware::quilservicemanager::implementation
