#pragma once

#include <quil/hardware/quilservicemanager/1.0/IQuilServiceManager.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <mutex>
#include <string>

#include "host/fpga_load.h"
#include "host/mcu_bring_up.h"

namespace quil::host {

using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::quil::hardware::quilservicemanager::V1_0::IQuilServiceCallback;
using ::quil::hardware::quilservicemanager::V1_0::IQuilServiceManager;

// What the start-up is at, once clients are in.
enum class BootStage { kMcuFirmware, kFpga, kUp };

// What clients are given in the place of the library's service object, whose calls it passes on.
// The host adds what it alone knows:
// - While firmware is being written, a power mode and a self-test are answered with the single byte
//   0xFF, as the library answers MCU requests: they must not come into the middle of an erase.
// - Above a number of requests at once, each of which holds the thread that it came on, the next
//   one is answered with nothing at once. All other calls always come in.
// - `debug` ends with the stage of the start-up.
class FrontDoor : public IQuilServiceManager {
  public:
    static constexpr unsigned kNoLimit = std::numeric_limits<unsigned>::max();

    FrontDoor(const android::sp<IQuilServiceManager>& service, unsigned requestsAtOnce);

    void enter(BootStage stage);
    void tellMcuFirmware(McuFirmware result);
    void tellFpga(FpgaLoad result);

    Return<int32_t> hwInvoke(const hidl_vec<uint8_t>& data) override;
    Return<int32_t> hwRegistCallback(const android::sp<IQuilServiceCallback>& callback) override;
    Return<int32_t> hwUnRegistCallback(const android::sp<IQuilServiceCallback>& callback) override;
    Return<void> set(const hidl_vec<uint8_t>& request, set_cb result) override;
    Return<void> get(const hidl_vec<uint8_t>& request, get_cb result) override;
    Return<void> wakeUp(const hidl_vec<uint8_t>& data) override;
    Return<void> debug(const android::hardware::hidl_handle& handle,
                       const hidl_vec<android::hardware::hidl_string>& options) override;

  private:
    struct Progress {
        BootStage stage = BootStage::kMcuFirmware;
        std::chrono::steady_clock::time_point since = std::chrono::steady_clock::now();
        McuFirmware mcu = McuFirmware::kNotAsked;
        FpgaLoad fpga = FpgaLoad::kNotAsked;
    };
    using Request = Return<void> (IQuilServiceManager::*)(const hidl_vec<uint8_t>&, get_cb);

    Return<void> pass(Request method, const hidl_vec<uint8_t>& request, const get_cb& result);
    std::string text() const;

    const android::sp<IQuilServiceManager> mService;
    const unsigned mRequestsAtOnce;
    std::atomic<unsigned> mInside{0}, mTurnedAway{0};
    mutable std::mutex mMutex;  // guards the next
    Progress mProgress;
};

}  // namespace quil::host
