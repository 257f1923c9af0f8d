// The process that serves the hardware service: loads the implementation as clients of a
// passthrough service would, and offers it to them through the binder.
#include <hidl/HidlTransportSupport.h>
#include <log/log.h>

#include "host/hosting_component.h"

int main() {
    constexpr char kTag[] = "quil_service_host";
    // Requests wait for one another; the other threads let clients register and time out meanwhile.
    android::hardware::configureRpcThreadpool(4, true /* the calling thread joins */);
    quil::host::HostingComponent host;
    const quil::host::StartUpResult result = host.start();
    if (!result.ok()) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%s\n", result.text.c_str());
        return 1;
    }
    if (host.service()->registerAsService("default") != android::OK) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "the service could not be registered\n");
        return 1;
    }
    android::hardware::joinRpcThreadpool();
    return 1;  // the pool is never left while the service lives
}
