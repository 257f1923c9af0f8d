#include "service/quil_service_callback.h"

namespace quil::hardware::quilservicemanager::implementation {

QuilServiceCallback::QuilServiceCallback() = default;
QuilServiceCallback::~QuilServiceCallback() = default;

::android::hardware::Return<void> QuilServiceCallback::hwNotify(
    const ::android::hardware::hidl_vec<uint8_t>& /*data*/) {
    return ::android::hardware::Void();
}

}  // namespace quil::hardware::quilservicemanager::implementation
