// A client of the service, and a component that uses its classes directly.
#include <quil/hardware/quilservicemanager/1.0/IQuilServiceCallback.h>
#include <quil/hardware/quilservicemanager/1.0/IQuilServiceManager.h>
#include <service/control_manager.h>
#include <service/quil_service_callback.h>
#include <service/quil_service_manager.h>
#include <stdio.h>

namespace {

using android::sp;
using android::hardware::hidl_vec;
using quil::hardware::quilservicemanager::V1_0::IQuilServiceCallback;
using quil::hardware::quilservicemanager::V1_0::IQuilServiceManager;
namespace implementation = quil::hardware::quilservicemanager::implementation;

struct Callback : IQuilServiceCallback {
    android::hardware::Return<void> hwNotify(const hidl_vec<uint8_t>& data) override {
        printf("notified of %zu bytes\n", data.size());
        return android::hardware::Void();
    }
};

}  // namespace

int main() {
    const ControlManager unused;
    const sp<IQuilServiceManager> service = IQuilServiceManager::getService("default", true);
    if (service == nullptr) return 1;
    const sp<IQuilServiceCallback> callback = new Callback;
    printf("register %d\n", static_cast<int32_t>(service->hwRegistCallback(callback)));
    printf("invoke %d\n", static_cast<int32_t>(service->hwInvoke({1, 2, 3})));
    service->get({1, 2, 3}, [](const auto& answer) { printf("answer of %zu\n", answer.size()); });

    const sp<implementation::QuilServiceManager> own = new implementation::QuilServiceManager;
    implementation::tclvMsg message;
    const hidl_vec<uint8_t> request{4, 3, 2, 1, 0, 0, 1, 0, 0xAA};
    const int32_t result = own->convertRequestToTclvMsg(request, &message);
    printf("convert %d, command 0x%08X\n", result, message.cmd);
    return 0;
}
