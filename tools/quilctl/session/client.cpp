#include "tools/quilctl/session/client.h"

#include <mutex>
#include <stdexcept>

namespace quil::tools {
namespace {

using android::sp;
using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using ::quil::hardware::quilservicemanager::V1_0::IQuilServiceCallback;

// Owns what arrives: a service that keeps the callback may call it later, on another thread.
class Recorder : public IQuilServiceCallback {
  public:
    Return<void> hwNotify(const hidl_vec<uint8_t>& data) override {
        const std::lock_guard lock(mMutex);
        mArrived.emplace_back(data.begin(), data.end());
        return Void();
    }
    std::vector<Bytes> arrived() {
        const std::lock_guard lock(mMutex);
        return mArrived;
    }

  private:
    std::mutex mMutex;
    std::vector<Bytes> mArrived;
};

template <typename Value>
Value valueOf(Return<Value> result) {
    if (!result.isOk()) throw std::runtime_error("the service failed: " + result.description());
    return result;
}

}  // namespace

Bytes requestOf(uint32_t command, const Bytes& body) {
    Bytes request;
    for (int shift = 0; shift < 32; shift += 8) {
        request.push_back(static_cast<uint8_t>(command >> shift));
    }
    request.insert(request.end(), {0, 0});
    request.push_back(static_cast<uint8_t>(body.size()));
    request.push_back(static_cast<uint8_t>(body.size() >> 8));
    request.insert(request.end(), body.begin(), body.end());
    return request;
}

Bytes ask(ServiceSession& session, bool isWrite, const Bytes& request) {
    session.onRequest(isWrite, request);
    Bytes answer;
    const auto keep = [&answer](const hidl_vec<uint8_t>& bytes) {
        answer.assign(bytes.begin(), bytes.end());
    };
    const hidl_vec<uint8_t> bytes(request);
    auto& service = session.service();
    const Return<void> done = isWrite ? service.set(bytes, keep) : service.get(bytes, keep);
    if (!done.isOk()) throw std::runtime_error("the service failed: " + done.description());
    session.onAnswer(answer);
    return answer;
}

CallbackRun invokeCallbacks(ServiceSession& session, size_t count, const Bytes& data) {
    CallbackRun run;
    auto& service = session.service();
    const sp<Recorder> callback = new Recorder;
    for (size_t i = 0; i < count; ++i) {
        if (valueOf(service.hwRegistCallback(callback)) != 0) {
            throw std::runtime_error("the service refused the callback");
        }
    }
    run.invoked = valueOf(service.hwInvoke(hidl_vec<uint8_t>(data)));
    run.arrived = callback->arrived();
    for (size_t i = 0; i < count; ++i) {
        if (valueOf(service.hwUnRegistCallback(callback)) == 0) ++run.removed;
    }
    return run;
}

}  // namespace quil::tools
