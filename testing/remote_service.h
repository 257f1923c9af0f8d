// The service as a client in another process has it: each of its calls holds one of the serving
// process's threads for as long as it lasts, and stands outside while there is none free.
#pragma once

#include <hwbinder/IInterface.h>
#include <quil/hardware/quilservicemanager/1.0/IQuilServiceManager.h>
#include <standin/rpc_threadpool.h>
#include <stdint.h>

#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace quil::tests {

class RemoteService : public android::hardware::BpInterface<
                          hardware::quilservicemanager::V1_0::IQuilServiceManager> {
    template <typename Type>
    using vec = android::hardware::hidl_vec<Type>;
    template <typename Type>
    using Return = android::hardware::Return<Type>;
    using Callback = android::sp<hardware::quilservicemanager::V1_0::IQuilServiceCallback>;

    template <typename Call>
    static auto call(Call run) {
        std::optional<decltype(run())> result;
        android::hardware::standin::callFromOutside([&] { result.emplace(run()); });
        return *std::move(result);
    }

    // The answer travels back with the end of the call: the client's callback runs in the client.
    template <typename Call>
    static Return<void> answered(const get_cb& result, Call run) {
        vec<uint8_t> answer;
        Return<void> done = call([&] { return run([&](const auto& bytes) { answer = bytes; }); });
        if (done.isOk()) result(answer);
        return done;
    }

  public:
    explicit RemoteService(const android::sp<IQuilServiceManager>& served)
        : BpInterface(nullptr), mServed(served) {}

    bool isRemote() const override { return true; }

    Return<int32_t> hwInvoke(const vec<uint8_t>& data) override {
        return call([&] { return mServed->hwInvoke(data); });
    }
    Return<int32_t> hwRegistCallback(const Callback& callback) override {
        return call([&] { return mServed->hwRegistCallback(callback); });
    }
    Return<int32_t> hwUnRegistCallback(const Callback& callback) override {
        return call([&] { return mServed->hwUnRegistCallback(callback); });
    }
    Return<void> set(const vec<uint8_t>& request, set_cb result) override {
        return answered(result, [&](const get_cb& keep) { return mServed->set(request, keep); });
    }
    Return<void> get(const vec<uint8_t>& request, get_cb result) override {
        return answered(result, [&](const get_cb& keep) { return mServed->get(request, keep); });
    }
    Return<void> wakeUp(const vec<uint8_t>& data) override {
        return call([&] { return mServed->wakeUp(data); });
    }
    Return<void> debug(const android::hardware::hidl_handle& handle,
                       const vec<android::hardware::hidl_string>& options) override {
        return call([&] { return mServed->debug(handle, options); });
    }

    // The answer to one request.
    std::vector<uint8_t> ask(bool isWrite, const std::vector<uint8_t>& request) {
        std::vector<uint8_t> answer;
        const auto keep = [&answer](const vec<uint8_t>& bytes) { answer = bytes; };
        const auto done = isWrite ? set(request, keep) : get(request, keep);
        (void)done.isOk();
        return answer;
    }

  private:
    const android::sp<IQuilServiceManager> mServed;
};

}  // namespace quil::tests
