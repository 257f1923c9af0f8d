// The service object behind IQuilServiceManager: client requests in, answers out.
//
// Clients reach the first six functions through IQuilServiceManager; their virtual slots follow
// those of IBase in this order. Any thread may call any of them; `set` and `get` wait for each
// other.
#pragma once

#include <pthread.h>
#include <quil/hardware/quilservicemanager/1.0/IQuilServiceManager.h>

#include <atomic>
#include <vector>

#include "common/export.h"
#include "service/tclv_msg.h"

namespace quil::hardware::quilservicemanager::implementation {

using ::android::sp;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::android::hardware::Void;
using V1_0::IQuilServiceCallback;
using V1_0::IQuilServiceManager;

class QUIL_EXPORT QuilServiceManager : public IQuilServiceManager {
  public:
    // Without clients; no thread is started.
    QuilServiceManager();
    ~QuilServiceManager() override;

    // Passes `data` to every registered callback, one after the other, on the caller's thread.
    // Returns the number of bytes in `data`, or -1 without callbacks. A callback may register or
    // unregister.
    Return<int32_t> hwInvoke(const hidl_vec<uint8_t>& data) override;
    // Returns 0, or -1 for a null callback. The same callback may be registered more than once.
    Return<int32_t> hwRegistCallback(const sp<IQuilServiceCallback>& callback) override;
    // Removes one registration, the oldest. Returns 0, or -1 when there is none.
    Return<int32_t> hwUnRegistCallback(const sp<IQuilServiceCallback>& callback) override;
    // One request (command u32, error code u16, length u16, body; little-endian), from its bytes to
    // its answer through `_hidl_cb`, which is called before they return; an empty answer is a
    // failure, the single byte 0xFF means that firmware is being updated. Blocks for as long as the
    // MCU takes, at most about 5 s, and for as long as requests before it do.
    Return<void> set(const hidl_vec<uint8_t>& request, set_cb _hidl_cb) override;
    Return<void> get(const hidl_vec<uint8_t>& request, get_cb _hidl_cb) override;
    // Delivers the MCU's answer; whoever waits for one gets these bytes. Takes the wait mutex only.
    Return<void> wakeUp(const hidl_vec<uint8_t>& data) override;

    // Writes the state of the service as text, at most 4 KiB, to the first descriptor of `handle`:
    // version, configuration, firmware flags, counters, callbacks. `options` are ignored. Waits for
    // no request.
    Return<void> debug(const ::android::hardware::hidl_handle& handle,
                       const hidl_vec<::android::hardware::hidl_string>& options) override;

    // The steps of a request, for components that drive them one by one, on the thread of the
    // request. Each returns 0, or -1 on failure.
    Return<int32_t> convertRequestToTclvMsg(const hidl_vec<uint8_t>& request, tclvMsg* msg);
    Return<int32_t> getBusinessTypeByTclvMsg(tclvMsg* msg, hidl_service_type_t* type);
    Return<int32_t> sendTclvDataToMcu(tclvMsg* msg, uint8_t is_write);
    Return<void> doWaitMcu();
    Return<int32_t> powerControl(tclvMsg* msg);
    Return<int32_t> lowPowerMode();
    Return<int32_t> normalPowerMode();
    // Always 0: a run that failed leaves an empty answer.
    Return<int32_t> selfTest(tclvMsg* msg);

  protected:
    // Other components share this layout: order and types are binding.
    std::vector<sp<IQuilServiceCallback>> mClients;
    std::vector<uint8_t> recvData;  // what the current request answers with
    pthread_mutex_t mRequestMutex = PTHREAD_MUTEX_INITIALIZER;  // one request at a time
    pthread_mutex_t mWaitMutex = PTHREAD_MUTEX_INITIALIZER;     // recvData, against wakeUp
    pthread_cond_t mWaitCond = PTHREAD_COND_INITIALIZER;
    std::atomic<bool> mDataReady{false};
    static_assert(sizeof(std::atomic<bool>) == 1, "one byte in the record");
    pthread_mutex_t mClientsMutex = PTHREAD_MUTEX_INITIALIZER;

  private:
    using ResultCallback = std::function<void(const hidl_vec<uint8_t>&)>;
    // What debug() tells: requests by type, since the service was made.
    struct Counters {
        std::atomic<uint32_t> mcu{0}, powerControl{0}, selfTest{0}, unknown{0}, refused{0};
        std::atomic<uint32_t> timeOuts{0}, lastLabel{0};
    };
    struct Method {
        const char* name;
        uint8_t isWrite;
    };

    QUIL_HIDDEN Return<void> handleRequest(const Method& method, const hidl_vec<uint8_t>& request,
                                           const ResultCallback& result);
    QUIL_HIDDEN void dispatch(const Method& method, tclvMsg& msg, hidl_service_type_t type);
    QUIL_HIDDEN void answer(const ResultCallback& result);
    QUIL_HIDDEN bool waitForAnswer();
    QUIL_HIDDEN std::vector<sp<IQuilServiceCallback>> snapshotOfClients();

    Counters mCounters;
};

// The factory that the platform's passthrough loader calls. Returns a new service, which the caller
// holds by a strong reference. The instance name is ignored.
extern "C" QUIL_EXPORT IQuilServiceManager* HIDL_FETCH_IQuilServiceManager(const char* name);

}  // namespace quil::hardware::quilservicemanager::implementation
