// The clients that want to be told of events, and the broadcast that reaches them.
#include <hidl/HidlTransportSupport.h>

#include <algorithm>

#include "common/log.h"
#include "common/mutex_lock.h"
#include "service/quil_service_manager.h"

namespace quil::hardware::quilservicemanager::implementation {

using common::kServiceTag;
using common::MutexLock;

namespace {
// Fixed numbers that service tools look for in the log.
constexpr int kRegistrationMark = 98, kRemovalMark = 117;
}  // namespace

std::vector<sp<IQuilServiceCallback>> QuilServiceManager::snapshotOfClients() {
    const MutexLock lock(mClientsMutex);
    return mClients;
}

Return<int32_t> QuilServiceManager::hwInvoke(const hidl_vec<uint8_t>& data) {
    QUIL_LOG_DEBUG(kServiceTag, "%s is called\n", __func__);
    const std::vector<sp<IQuilServiceCallback>> clients = snapshotOfClients();
    if (clients.empty()) {
        QUIL_LOG_DEBUG(kServiceTag, "%s: mClients is empty\n", __func__);
        return -1;
    }
    QUIL_LOG_DEBUG(kServiceTag, "%s: mClients size %u", __func__,
                   static_cast<unsigned>(clients.size()));
    for (size_t i = 0; i < clients.size(); ++i) {
        if (clients[i] == nullptr) {
            QUIL_LOG_DEBUG(kServiceTag, "%s: mClients[%d] is empty\n", __func__,
                           static_cast<int>(i));
            continue;
        }
        QUIL_LOG_DEBUG(kServiceTag, "%s: mClients[%d] is detected\n", __func__,
                       static_cast<int>(i));
        // A dead client stays registered. isOk() marks its status as checked; unchecked it would
        // abort.
        (void)clients[i]->hwNotify(data).isOk();
    }
    return static_cast<int32_t>(data.size());
}

Return<int32_t> QuilServiceManager::hwRegistCallback(const sp<IQuilServiceCallback>& callback) {
    QUIL_LOG_DEBUG(kServiceTag, "%s %d", __func__, kRegistrationMark);
    if (callback == nullptr) {
        QUIL_LOG_ERROR(kServiceTag, "%s: callback is NULL\n", __func__);
        return -1;
    }
    const MutexLock lock(mClientsMutex);
    mClients.push_back(callback);
    QUIL_LOG_DEBUG(kServiceTag, "%s: register callback count = %u\n", __func__,
                   static_cast<unsigned>(mClients.size()));
    return 0;
}

Return<int32_t> QuilServiceManager::hwUnRegistCallback(const sp<IQuilServiceCallback>& callback) {
    QUIL_LOG_DEBUG(kServiceTag, "%s %d", __func__, kRemovalMark);
    sp<IQuilServiceCallback> removed;  // released after the lock: its destructor may call back
    const MutexLock lock(mClientsMutex);
    // Another process's callback comes as a new proxy with each call.
    const auto entry = std::find_if(
        mClients.begin(), mClients.end(), [&callback](const sp<IQuilServiceCallback>& client) {
            return ::android::hardware::interfacesEqual(client, callback);
        });
    if (callback == nullptr || entry == mClients.end()) {
        QUIL_LOG_ERROR(kServiceTag, "%s: unregister Callback not found\n", __func__);
        return -1;
    }
    removed = *entry;
    mClients.erase(entry);
    QUIL_LOG_INFO(kServiceTag, "%s: Callback unregistered. Total callbacks: %u\n", __func__,
                  static_cast<unsigned>(mClients.size()));
    return 0;
}

}  // namespace quil::hardware::quilservicemanager::implementation
