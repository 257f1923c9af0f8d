#include "host/front_door.h"

#include <android/log.h>
#include <cutils/native_handle.h>
#include <unistd.h>

#include "host/firmware_update_guard.h"
#include "host/wire_frame.h"
#include "service/tclv_msg.h"

namespace quil::host {
namespace {

namespace requests = ::quil::hardware::quilservicemanager::implementation;
using std::chrono::duration_cast;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr char kTag[] = "quil_service_host";
constexpr uint8_t kFirmwareUpdating = 0xFF;

// Requests that the library carries out itself, whatever goes on elsewhere. It refuses what is
// shorter than a request's header.
bool touchesTheBoard(const hidl_vec<uint8_t>& request) {
    constexpr size_t kHeaderSize = 8;
    if (request.size() < kHeaderSize) return false;
    const uint32_t command = load32({request.data(), request.size()}, 0);
    return command == requests::kCommandLowPower || command == requests::kCommandNormalPower ||
           command == requests::kCommandSelfTest;
}

const char* nameOf(BootStage stage) {
    switch (stage) {
        case BootStage::kMcuFirmware:
            return "MCU firmware";
        case BootStage::kFpga:
            return "FPGA load";
        case BootStage::kUp:
            return "up";
    }
    return "";
}

const char* nameOf(McuFirmware result) {
    switch (result) {
        case McuFirmware::kNotAsked:
            return "left out";
        case McuFirmware::kLeftAsItWas:
            return "left as it was";
        case McuFirmware::kReprogrammed:
            return "programmed";
        case McuFirmware::kLinkLost:
            return "programmed, and the link did not open again";
    }
    return "";
}

const char* nameOf(FpgaLoad result) {
    switch (result) {
        case FpgaLoad::kNotAsked:
            return "left out";
        case FpgaLoad::kUp:
            return "up";
        case FpgaLoad::kFailed:
            return "failed (see the log)";
        case FpgaLoad::kNoSequence:
            return "there is no load sequence for this product";
    }
    return "";
}

void writeAll(int descriptor, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t count = write(descriptor, text.data() + done, text.size() - done);
        if (count <= 0) return;
        done += static_cast<size_t>(count);
    }
}

}  // namespace

FrontDoor::FrontDoor(const android::sp<IQuilServiceManager>& service, unsigned requestsAtOnce)
    : mService(service), mRequestsAtOnce(requestsAtOnce) {}

void FrontDoor::enter(BootStage stage) {
    const std::lock_guard lock(mMutex);
    mProgress.stage = stage;
    mProgress.since = steady_clock::now();
}

void FrontDoor::tellMcuFirmware(McuFirmware result) {
    const std::lock_guard lock(mMutex);
    mProgress.mcu = result;
}

void FrontDoor::tellFpga(FpgaLoad result) {
    const std::lock_guard lock(mMutex);
    mProgress.fpga = result;
}

Return<int32_t> FrontDoor::hwInvoke(const hidl_vec<uint8_t>& data) {
    return mService->hwInvoke(data);
}

Return<int32_t> FrontDoor::hwRegistCallback(const android::sp<IQuilServiceCallback>& callback) {
    return mService->hwRegistCallback(callback);
}

Return<int32_t> FrontDoor::hwUnRegistCallback(const android::sp<IQuilServiceCallback>& callback) {
    return mService->hwUnRegistCallback(callback);
}

Return<void> FrontDoor::set(const hidl_vec<uint8_t>& request, set_cb result) {
    return pass(&IQuilServiceManager::set, request, result);
}

Return<void> FrontDoor::get(const hidl_vec<uint8_t>& request, get_cb result) {
    return pass(&IQuilServiceManager::get, request, result);
}

Return<void> FrontDoor::wakeUp(const hidl_vec<uint8_t>& data) { return mService->wakeUp(data); }

Return<void> FrontDoor::pass(Request method, const hidl_vec<uint8_t>& request,
                             const get_cb& result) {
    struct Place {
        explicit Place(std::atomic<unsigned>& inside) : taken(inside), number(++inside) {}
        ~Place() { --taken; }
        std::atomic<unsigned>& taken;
        const unsigned number;
    } const place(mInside);
    if (place.number > mRequestsAtOnce) {
        ++mTurnedAway;
        __android_log_print(ANDROID_LOG_ERROR, kTag, "%u requests wait already: one turned away\n",
                            mRequestsAtOnce);
        result({});
        return android::hardware::Void();
    }
    if (firmwareBeingWritten() != Firmware::kNobodys && touchesTheBoard(request)) {
        __android_log_print(ANDROID_LOG_ERROR, kTag,
                            "firmware is being written: power mode or self-test turned away\n");
        result({kFirmwareUpdating});
        return android::hardware::Void();
    }
    return (mService.get()->*method)(request, result);
}

std::string FrontDoor::text() const {
    Progress now;
    {
        const std::lock_guard lock(mMutex);
        now = mProgress;
    }
    const auto age = duration_cast<seconds>(steady_clock::now() - now.since).count();
    const bool mcuIsOver = now.stage != BootStage::kMcuFirmware;
    const bool fpgaIsOver = now.stage == BootStage::kUp;
    return std::string("start-up: ") + nameOf(now.stage) + ", for " + std::to_string(age) +
           " s\n  MCU firmware = " + (mcuIsOver ? nameOf(now.mcu) : "going on") + "\n  FPGA = " +
           (fpgaIsOver  ? nameOf(now.fpga)
            : mcuIsOver ? "going on"
                        : "to come") +
           "\nrequests inside = " + std::to_string(mInside) +
           (mRequestsAtOnce == kNoLimit ? "" : " of at most " + std::to_string(mRequestsAtOnce)) +
           ", turned away = " + std::to_string(mTurnedAway) + "\n";
}

Return<void> FrontDoor::debug(const android::hardware::hidl_handle& handle,
                              const hidl_vec<android::hardware::hidl_string>& options) {
    Return<void> told = mService->debug(handle, options);
    const native_handle_t* descriptors = handle.getNativeHandle();
    if (descriptors != nullptr && descriptors->numFds > 0) writeAll(descriptors->data[0], text());
    return told;
}

}  // namespace quil::host
