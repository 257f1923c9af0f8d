#include "host/hosting_component.h"

#include "update/config_info.h"

namespace quil::host {

HostingComponent::~HostingComponent() { stop(); }

StartUpResult HostingComponent::start() {
    if (mService != nullptr) return {StartUpError::kService, "the service is already up"};
    if (StartUpResult result = startUp(); !result.ok()) return result;
    mLinkIsOpen = true;
    mService = IQuilServiceManager::getService("default", true /* passthrough */);
    if (mService == nullptr) {
        stop();
        return {StartUpError::kService,
                "the implementation library could not be loaded (see the log)"};
    }
    mReader = std::make_unique<McuReader>(
        config_info->mcu_fd, [service = mService](const WireFrame& answer) {
            const android::hardware::hidl_vec<uint8_t> payload(answer.payload);
            const auto delivered = service->wakeUp(payload);
            (void)delivered.isOk();  // in the same process there is no transport to fail
        });
    return {};
}

void HostingComponent::stop() {
    mReader.reset();
    mService = nullptr;
    if (mLinkIsOpen) shutDown();
    mLinkIsOpen = false;
}

}  // namespace quil::host
