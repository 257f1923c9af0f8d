// What a vendor's module may do with the exported classes: derive from them, without run-time type
// information, as Soong builds a module that does not ask for it.
#include "service/control_manager.h"
#include "service/quil_service_callback.h"
#include "service/quil_service_manager.h"

namespace {

using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
namespace implementation = quil::hardware::quilservicemanager::implementation;

struct Manager : implementation::QuilServiceManager {
    Return<void> set(const hidl_vec<uint8_t>& request, set_cb answer) override {
        return QuilServiceManager::set(request, answer);
    }
};

struct Callback : implementation::QuilServiceCallback {
    Return<void> hwNotify(const hidl_vec<uint8_t>&) override { return Void(); }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) void* quilDerived(int which) {
    if (which == 0) return new ControlManager;
    return which == 1 ? static_cast<void*>(new Manager) : new Callback;
}
