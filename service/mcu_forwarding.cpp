// An MCU request on its way out, the wait for its answer, and the answer's way in: a mailbox with
// one slot. The answer is not matched to the request; what arrives during a wait is the answer.
#include <errno.h>
#include <time.h>

#include "common/log.h"
#include "common/mutex_lock.h"
#include "config/config_info.h"
#include "mculink/frame.h"
#include "mculink/request.h"
#include "service/quil_service_manager.h"

namespace quil::hardware::quilservicemanager::implementation {

using common::kServiceTag;
using common::MutexLock;

namespace {
constexpr time_t kAnswerTimeoutSeconds = 5;
constexpr uint8_t kFirmwareUpdating = 0xFF;
}  // namespace

Return<int32_t> QuilServiceManager::sendTclvDataToMcu(tclvMsg* msg, uint8_t is_write) {
    const config_info_t* info = config_info;
    if (info == nullptr || msg == nullptr) {
        QUIL_LOG_ERROR(kServiceTag, "%s: config_info or msg is NULL\n", __func__);
        return -1;
    }
    QUIL_LOG_DEBUG(kServiceTag, "%s: load mcu thread fd = %d, mcu_type = %d\n", __func__,
                   __atomic_load_n(&info->mcu_fd, __ATOMIC_ACQUIRE), info->mcu_type);
    // The host raises the flag from its own thread, and changes the link while it stands.
    if (__atomic_load_n(&info->fw_updating, __ATOMIC_ACQUIRE) != 0) {
        QUIL_LOG_ERROR(kServiceTag, "%s: now fw is updating...return 0xff\n", __func__);
        const MutexLock lock(mWaitMutex);
        recvData.assign(1, kFirmwareUpdating);
        return -1;
    }
    if (msg->length > msg->msgBody.size()) {
        QUIL_LOG_ERROR(kServiceTag, "%s: msg->length(0x%x) is above msgBody's size(0x%x)\n",
                       __func__, msg->length, static_cast<unsigned>(msg->msgBody.size()));
        return -1;
    }
    const int sent =
        send_mcu_message(msg->cmd, is_write, msg->msgBody.data(), msg->length, info->mcu_fd);
    mCounters.lastLabel = g_n_lable;
    if (sent < 0) {
        QUIL_LOG_ERROR(kServiceTag, "%s: send_mcu_message failed\n", __func__);
        return -1;
    }
    doWaitMcu();
    return 0;
}

// Waits on mWaitCond, with mWaitMutex held, until an answer is there: true; or the time is up:
// false, even if an answer came with the very end of the wait.
bool QuilServiceManager::waitForAnswer() {
    timespec deadline = {};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += kAnswerTimeoutSeconds;
    while (!mDataReady) {
        if (pthread_cond_timedwait(&mWaitCond, &mWaitMutex, &deadline) == ETIMEDOUT) return false;
    }
    return true;
}

Return<void> QuilServiceManager::doWaitMcu() {
    // Drops an answer that came before this line. Before the lock, so that one that wakeUp is
    // bringing in meanwhile, with the lock in its hands, stays: both are binding.
    mDataReady = false;
    const MutexLock lock(mWaitMutex);
    if (!waitForAnswer()) {
        ++mCounters.timeOuts;
        QUIL_LOG_ERROR(kServiceTag,
                       "%s: Timeout 5s waiting for response from MCU. frame_seq_num = 0x%x\n",
                       __func__, g_n_lable);
    }
    // Logged after a time-out as well.
    QUIL_LOG_DEBUG(kServiceTag, "%s data from thread_mcu is ready\n", __func__);
    if (recvData.empty()) QUIL_LOG_DEBUG(kServiceTag, "%s: recvData is empty\n", __func__);
    mDataReady = false;
    return Void();
}

Return<void> QuilServiceManager::wakeUp(const hidl_vec<uint8_t>& data) {
    QUIL_LOG_DEBUG(kServiceTag, "%s is called\n", __func__);
    const MutexLock lock(mWaitMutex);
    recvData.assign(data.begin(), data.end());
    mDataReady = true;
    pthread_cond_signal(&mWaitCond);
    return Void();
}

}  // namespace quil::hardware::quilservicemanager::implementation
