#include "host/hosting_component.h"

#include "config/config_info.h"
#include "host/firmware_update_guard.h"

namespace quil::host {

namespace {

void tell(const BootJobs& jobs, BootStep step) {
    if (jobs.onStep) jobs.onStep(step);
}

Firmware writtenByTheFpgaLoad(const BootJobs& jobs) {
    return jobs.loadFpga && fpgaImageIsPending() ? Firmware::kFpgas : Firmware::kNobodys;
}

}  // namespace

HostingComponent::~HostingComponent() { stop(); }

StartUpResult HostingComponent::start(const BootJobs& jobs) {
    if (mDoor != nullptr) return {StartUpError::kService, "the service is already up"};
    if (StartUpResult result = startUp(); !result.ok()) return result;
    mLinkIsOpen = true;
    tell(jobs, BootStep::kConfiguration);
    StartUpResult result = boot(jobs);
    if (!result.ok()) {
        stop();
        return result;
    }
    mDoor->enter(BootStage::kUp);
    tell(jobs, BootStep::kUp);
    return {};
}

StartUpResult HostingComponent::boot(const BootJobs& jobs) {
    mMcuFirmware = McuFirmware::kNotAsked;
    mFpga = FpgaLoad::kNotAsked;
    // Up before the first client is in, and without a gap until the last image is written: no
    // request can come between an update and what it works on.
    FirmwareUpdateGuard writing(jobs.updateMcu ? Firmware::kMcus : writtenByTheFpgaLoad(jobs));
    if (StartUpResult result = openDoor(jobs); !result.ok()) return result;
    if (jobs.updateMcu) {
        if (StartUpResult result = updateMcu(jobs); !result.ok()) return result;
    }
    startReader();
    writing.changeTo(writtenByTheFpgaLoad(jobs));
    if (jobs.loadFpga) runFpgaLoad(jobs);
    return {};
}

StartUpResult HostingComponent::openDoor(const BootJobs& jobs) {
    const auto service = IQuilServiceManager::getService("default", true /* passthrough */);
    if (service == nullptr) {
        return {StartUpError::kService,
                "the implementation library could not be loaded (see the log)"};
    }
    mDoor = new FrontDoor(jobs.watch ? jobs.watch(service) : service, jobs.requestsAtOnce);
    if (!jobs.updateMcu) mDoor->enter(BootStage::kFpga);
    if (jobs.letClientsIn && !jobs.letClientsIn(mDoor)) {
        return {StartUpError::kService, "the service could not be registered"};
    }
    tell(jobs, BootStep::kClients);
    return {};
}

StartUpResult HostingComponent::updateMcu(const BootJobs& jobs) {
    mMcuFirmware = bringMcuUpToDate();
    mDoor->tellMcuFirmware(mMcuFirmware);
    if (mMcuFirmware == McuFirmware::kLinkLost) {
        return {StartUpError::kLink, "the MCU link could not be opened again after the update"};
    }
    tell(jobs, BootStep::kMcu);
    return {};
}

// From here on the link's answers are the reader's: the update flow has read its own.
void HostingComponent::startReader() {
    mReader =
        std::make_unique<McuReader>(config_info->mcu_fd, [door = mDoor](const WireFrame& answer) {
            const android::hardware::hidl_vec<uint8_t> payload(answer.payload);
            const auto delivered = door->wakeUp(payload);
            (void)delivered.isOk();  // in the same process there is no transport to fail
        });
}

void HostingComponent::runFpgaLoad(const BootJobs& jobs) {
    mDoor->enter(BootStage::kFpga);
    mFpga = loadFpga();
    mDoor->tellFpga(mFpga);
    tell(jobs, BootStep::kFpga);
}

void HostingComponent::stop() {
    mReader.reset();
    mDoor = nullptr;
    if (mLinkIsOpen) shutDown();
    mLinkIsOpen = false;
}

}  // namespace quil::host
