// Stands between the hosting component's door and the library's service object, and writes down
// what goes in and out.
#pragma once

#include <quil/hardware/quilservicemanager/1.0/IQuilServiceManager.h>

#include <mutex>

#include "board/board.h"
#include "tests/swarm/oracle/history.h"

namespace quil::swarm {

using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::quil::hardware::quilservicemanager::V1_0::IQuilServiceCallback;
using ::quil::hardware::quilservicemanager::V1_0::IQuilServiceManager;

// The history of one service object. What happens without power is not part of it.
class Recorder {
  public:
    explicit Recorder(board::Board&);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    uint32_t nextCall();
    void add(Record);
    const History& history() const { return mHistory; }

  private:
    // Of the request that the calling thread has under way: its frame is written.
    void addSent();
    void addClockSet(const board::Event&);

    board::Board& mBoard;
    const size_t mListeners;  // of the board's trace, before this one
    std::mutex mMutex;        // guards the next
    History mHistory;
    uint32_t mCalls = 0;
};

// A callback with a number, by which the history tells it from others.
class NumberedCallback : public IQuilServiceCallback {
  public:
    explicit NumberedCallback(int number) : mNumber(number) { ++alive; }
    ~NumberedCallback() override { --alive; }
    int number() const { return mNumber; }

    static std::atomic<int> alive;

  private:
    const int mNumber;
};

class Witness : public IQuilServiceManager {
  public:
    Witness(const android::sp<IQuilServiceManager>& service, Recorder& recorder)
        : mService(service), mRecorder(recorder) {}

    // The first four bytes of what is broadcast are the number of the call.
    Return<int32_t> hwInvoke(const hidl_vec<uint8_t>& data) override;
    Return<int32_t> hwRegistCallback(const android::sp<IQuilServiceCallback>& callback) override;
    Return<int32_t> hwUnRegistCallback(const android::sp<IQuilServiceCallback>& callback) override;
    Return<void> set(const hidl_vec<uint8_t>& request, set_cb result) override;
    Return<void> get(const hidl_vec<uint8_t>& request, get_cb result) override;
    Return<void> wakeUp(const hidl_vec<uint8_t>& data) override;
    Return<void> debug(const android::hardware::hidl_handle& handle,
                       const hidl_vec<android::hardware::hidl_string>& options) override;

  private:
    Return<void> pass(bool isWrite, const hidl_vec<uint8_t>& request, const get_cb& result);

    const android::sp<IQuilServiceManager> mService;
    Recorder& mRecorder;
};

}  // namespace quil::swarm
