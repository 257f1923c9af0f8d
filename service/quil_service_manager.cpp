#include "service/quil_service_manager.h"

#include "common/log.h"
#include "common/mutex_lock.h"

namespace quil::hardware::quilservicemanager::implementation {

using common::kServiceTag;
using common::MutexLock;

QuilServiceManager::QuilServiceManager() = default;

QuilServiceManager::~QuilServiceManager() {
    std::vector<uint8_t>().swap(recvData);
    // Releases the last entry first; the vector's own destructor starts with the first.
    while (!mClients.empty()) mClients.pop_back();
}

Return<void> QuilServiceManager::set(const hidl_vec<uint8_t>& request, set_cb _hidl_cb) {
    return handleRequest({__func__, 1}, request, _hidl_cb);
}

Return<void> QuilServiceManager::get(const hidl_vec<uint8_t>& request, get_cb _hidl_cb) {
    return handleRequest({__func__, 0}, request, _hidl_cb);
}

Return<void> QuilServiceManager::handleRequest(const Method& method,
                                               const hidl_vec<uint8_t>& request,
                                               const ResultCallback& result) {
    const MutexLock oneRequestAtATime(mRequestMutex);
    tclvMsg msg;
    hidl_service_type_t type = HIDL_SERVICE_TYPE_INVALID;
    const int32_t parsed = convertRequestToTclvMsg(request, &msg);
    if (parsed < 0) {
        ++mCounters.refused;
        QUIL_LOG_ERROR(kServiceTag, "%s: convertRequestToTclvMsg failed, ret = %d\n", method.name,
                       parsed);
    } else if (const int32_t mapped = getBusinessTypeByTclvMsg(&msg, &type); mapped < 0) {
        QUIL_LOG_ERROR(kServiceTag, "%s: getBusinessTypeByTclvMsg failed, ret = %d\n", method.name,
                       mapped);
    } else {
        dispatch(method, msg, type);
    }
    answer(result);
    return Void();
}

void QuilServiceManager::dispatch(const Method& method, tclvMsg& msg, hidl_service_type_t type) {
    int32_t ret = 0;
    switch (type) {
        case HIDL_SERVICE_TYPE_MCU:
            ++mCounters.mcu;
            QUIL_LOG_DEBUG(kServiceTag, "%s: process HIDL_SERVICE_TYPE_MCU\n", method.name);
            ret = sendTclvDataToMcu(&msg, method.isWrite);
            if (ret < 0) {
                QUIL_LOG_ERROR(kServiceTag, "%s: sendTclvDataToMcu failed, ret = %d\n", method.name,
                               ret);
            }
            return;
        case HIDL_SERVICE_TYPE_POWER_CONTROL:
            ++mCounters.powerControl;
            QUIL_LOG_DEBUG(kServiceTag, "%s: process HIDL_SERVICE_TYPE_POWER_CONTROL\n",
                           method.name);
            ret = powerControl(&msg);
            if (ret < 0) {
                QUIL_LOG_ERROR(kServiceTag, "%s: do powerControl failed, ret = %d\n", method.name,
                               ret);
            }
            return;
        case HIDL_SERVICE_TYPE_SELF_TEST:
            ++mCounters.selfTest;
            QUIL_LOG_DEBUG(kServiceTag, "%s: process HIDL_SERVICE_TYPE_SELF_TEST\n", method.name);
            if (method.isWrite != 0) return;  // a self-test runs only through get
            ret = selfTest(&msg);
            if (ret < 0) {
                QUIL_LOG_ERROR(kServiceTag, "%s: do selfTest failed, ret = %d\n", method.name, ret);
            }
            return;
        case HIDL_SERVICE_TYPE_INVALID:
            break;
    }
    ++mCounters.unknown;
    QUIL_LOG_DEBUG(kServiceTag, "%s: invalid hidl service type = 0x%x\n", method.name,
                   static_cast<unsigned>(type));
}

// The result callback runs without mWaitMutex, so that it may call wakeUp. Bytes that arrive
// meanwhile are cleared too, also when the callback throws.
void QuilServiceManager::answer(const ResultCallback& result) {
    hidl_vec<uint8_t> bytes;
    {
        const MutexLock lock(mWaitMutex);
        bytes = recvData;
    }
    struct Emptier {
        QuilServiceManager& service;
        ~Emptier() {
            const MutexLock lock(service.mWaitMutex);
            service.recvData.clear();
        }
    } const emptier{*this};
    result(bytes);
}

IQuilServiceManager* HIDL_FETCH_IQuilServiceManager(const char* /*name*/) {
    return new QuilServiceManager();
}

}  // namespace quil::hardware::quilservicemanager::implementation
