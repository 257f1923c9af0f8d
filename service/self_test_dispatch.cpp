// The self-test as a request: the runner's record is the answer.
#include <stdint.h>

#include <algorithm>

#include "common/log.h"
#include "common/mutex_lock.h"
#include "selftest/self_test.h"
#include "service/quil_service_manager.h"

namespace quil::hardware::quilservicemanager::implementation {

using common::kServiceTag;
using common::MutexLock;

namespace {

constexpr unsigned kRecordMost = 1024, kRunnerFailure = UINT32_MAX;

unsigned answerLength(unsigned written) {
    return written == kRunnerFailure ? 0 : std::min(written, kRecordMost);
}

}  // namespace

Return<int32_t> QuilServiceManager::selfTest(tclvMsg* /*msg*/) {
    uint8_t record[kRecordMost] = {};
    const unsigned length = answerLength(runSelfTestAndGetResult(record, kRecordMost));
    {
        // Drop bytes of an earlier request.
        const MutexLock lock(mWaitMutex);
        recvData.assign(record, record + length);
    }
    for (unsigned i = 0; i < length; ++i) {
        QUIL_LOG_DEBUG(kServiceTag, "%s: test_result[%d] = 0x%02x\n", __func__, static_cast<int>(i),
                       record[i]);
    }
    QUIL_LOG_DEBUG(kServiceTag, "%s: recvData len = %u\n", __func__, length);
    return 0;
}

}  // namespace quil::hardware::quilservicemanager::implementation
