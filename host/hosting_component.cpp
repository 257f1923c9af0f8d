#include "host/hosting_component.h"

#include "config/config_info.h"

namespace quil::host {

namespace {

void tell(const BootJobs& jobs, BootStep step) {
    if (jobs.onStep) jobs.onStep(step);
}

}  // namespace

HostingComponent::~HostingComponent() { stop(); }

StartUpResult HostingComponent::start(const BootJobs& jobs) {
    if (mService != nullptr) return {StartUpError::kService, "the service is already up"};
    if (StartUpResult result = startUp(); !result.ok()) return result;
    mLinkIsOpen = true;
    tell(jobs, BootStep::kConfiguration);
    StartUpResult result = boot(jobs);
    if (result.ok()) result = loadService();
    if (!result.ok()) {
        stop();
        return result;
    }
    startReader();
    tell(jobs, BootStep::kService);
    return {};
}

// The jobs read the MCU's answers themselves: the reader comes after them.
StartUpResult HostingComponent::boot(const BootJobs& jobs) {
    mMcuFirmware = jobs.updateMcu ? bringMcuUpToDate() : McuFirmware::kLeftAsItWas;
    if (mMcuFirmware == McuFirmware::kLinkLost) {
        return {StartUpError::kLink, "the MCU link could not be opened again after the update"};
    }
    if (jobs.updateMcu) tell(jobs, BootStep::kMcu);
    mFpga = jobs.loadFpga ? loadFpga() : FpgaLoad::kNotAsked;
    if (jobs.loadFpga) tell(jobs, BootStep::kFpga);
    return {};
}

StartUpResult HostingComponent::loadService() {
    mService = IQuilServiceManager::getService("default", true /* passthrough */);
    if (mService != nullptr) return {};
    return {StartUpError::kService, "the implementation library could not be loaded (see the log)"};
}

void HostingComponent::startReader() {
    mReader = std::make_unique<McuReader>(
        config_info->mcu_fd, [service = mService](const WireFrame& answer) {
            const android::hardware::hidl_vec<uint8_t> payload(answer.payload);
            const auto delivered = service->wakeUp(payload);
            (void)delivered.isOk();  // in the same process there is no transport to fail
        });
}

void HostingComponent::stop() {
    mReader.reset();
    mService = nullptr;
    if (mLinkIsOpen) shutDown();
    mLinkIsOpen = false;
}

}  // namespace quil::host
