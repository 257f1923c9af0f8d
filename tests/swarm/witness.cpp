#include "tests/swarm/witness.h"

#include <inttypes.h>
#include <stdio.h>

#include <stdexcept>

#include "board/core/bytes.h"
#include "host/firmware_update_guard.h"

namespace quil::swarm {
namespace {

thread_local uint32_t t_request = 0;

int numberOf(const android::sp<IQuilServiceCallback>& callback) {
    return callback == nullptr ? 0 : static_cast<NumberedCallback*>(callback.get())->number();
}

}  // namespace

std::atomic<int> NumberedCallback::alive{0};

Recorder::Recorder(board::Board& board) : mBoard(board), mListeners(board.trace().listeners()) {
    mBoard.trace().onEvent([this](const board::Event& event) {
        if (event.kind == board::EventKind::kUartTx) addSent();
        if (event.source == "real-time clock") addClockSet(event);
    });
}

Recorder::~Recorder() { mBoard.trace().keepListeners(mListeners); }

uint32_t Recorder::nextCall() {
    const std::lock_guard lock(mMutex);
    return ++mCalls;
}

void Recorder::add(Record record) {
    if (mBoard.powerIsCut()) return;
    record.at = mBoard.now();
    record.updating = host::firmwareBeingWritten() != host::Firmware::kNobodys;
    const std::lock_guard lock(mMutex);
    mHistory.push_back(std::move(record));
}

void Recorder::addSent() {
    if (t_request != 0) add({.step = Step::kSent, .operation = t_request});
}

void Recorder::addClockSet(const board::Event& event) {
    int64_t nanos = 0;
    if (sscanf(event.text.c_str(), "set by %" SCNd64 " ns", &nanos) != 1) {
        throw std::logic_error("unknown step of the clock: " + event.text);
    }
    add({.step = Step::kClockSet, .by = std::chrono::nanoseconds(nanos)});
}

Return<int32_t> Witness::hwInvoke(const hidl_vec<uint8_t>& data) {
    const uint32_t call = mRecorder.nextCall();
    hidl_vec<uint8_t> bytes = data;
    if (bytes.size() >= 4) {
        std::vector<uint8_t> numbered(bytes);
        board::putLittle32(numbered, 0, call);
        bytes = numbered;
    }
    mRecorder.add({.step = Step::kInvoke, .operation = call, .bytes = bytes});
    const int32_t result = mService->hwInvoke(bytes);
    mRecorder.add({.step = Step::kInvokeDone, .operation = call, .result = result});
    return result;
}

Return<int32_t> Witness::hwRegistCallback(const android::sp<IQuilServiceCallback>& callback) {
    const uint32_t call = mRecorder.nextCall();
    mRecorder.add({.step = Step::kRegister, .operation = call, .callback = numberOf(callback)});
    const int32_t result = mService->hwRegistCallback(callback);
    mRecorder.add({.step = Step::kRegisterDone, .operation = call, .result = result});
    return result;
}

Return<int32_t> Witness::hwUnRegistCallback(const android::sp<IQuilServiceCallback>& callback) {
    const uint32_t call = mRecorder.nextCall();
    mRecorder.add({.step = Step::kUnregister, .operation = call, .callback = numberOf(callback)});
    const int32_t result = mService->hwUnRegistCallback(callback);
    mRecorder.add({.step = Step::kUnregisterDone, .operation = call, .result = result});
    return result;
}

Return<void> Witness::set(const hidl_vec<uint8_t>& request, set_cb result) {
    return pass(true, request, result);
}

Return<void> Witness::get(const hidl_vec<uint8_t>& request, get_cb result) {
    return pass(false, request, result);
}

Return<void> Witness::pass(bool isWrite, const hidl_vec<uint8_t>& request, const get_cb& result) {
    const uint32_t call = mRecorder.nextCall();
    mRecorder.add(
        {.step = Step::kRequest, .operation = call, .bytes = request, .isWrite = isWrite});
    const auto answer = [&](const hidl_vec<uint8_t>& bytes) {
        t_request = 0;
        mRecorder.add({.step = Step::kAnswer, .operation = call, .bytes = bytes});
        result(bytes);
        mRecorder.add({.step = Step::kAnswered, .operation = call});
    };
    t_request = call;
    Return<void> done = isWrite ? mService->set(request, answer) : mService->get(request, answer);
    mRecorder.add({.step = Step::kRequestDone, .operation = call});
    return done;
}

Return<void> Witness::wakeUp(const hidl_vec<uint8_t>& data) {
    const uint32_t call = mRecorder.nextCall();
    mRecorder.add({.step = Step::kWakeUp, .operation = call, .bytes = data});
    Return<void> done = mService->wakeUp(data);
    mRecorder.add({.step = Step::kWakeUpDone, .operation = call});
    return done;
}

Return<void> Witness::debug(const android::hardware::hidl_handle& handle,
                            const hidl_vec<android::hardware::hidl_string>& options) {
    return mService->debug(handle, options);
}

}  // namespace quil::swarm
