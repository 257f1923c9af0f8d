#define LOG_TAG "HidlServiceManagement"

#include <hidl/HidlTransportSupport.h>
#include <hidl/ServiceManagement.h>
#include <log/log.h>
#include <standin/rpc_threadpool.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <mutex>

using ::android::hidl::base::V1_0::IBase;

namespace android::hardware {
namespace {

class Pool {
  public:
    void configure(size_t threads, bool callerWillJoin) {
        const std::lock_guard lock(mMutex);
        mThreads = std::max<size_t>(threads, 1);
        mIsConfigured = true;
        mCallerIsMissing = callerWillJoin;
        mChanged.notify_all();
    }

    // The calling thread serves until the end; without a pool there is nothing to wait for.
    void join() {
        std::unique_lock lock(mMutex);
        mCallerIsMissing = false;
        mChanged.notify_all();
        mChanged.wait(lock, [this] { return !mIsConfigured; });
    }

    void end() {
        const std::lock_guard lock(mMutex);
        mServices.clear();
        mThreads = 1;
        mIsConfigured = mCallerIsMissing = false;
        mChanged.notify_all();
    }

    void enter() {
        std::unique_lock lock(mMutex);
        const uint64_t ticket = mTickets++;
        mChanged.wait(lock, [&] { return ticket == mNext && mBusy < serving(); });
        ++mNext;
        ++mBusy;
        mChanged.notify_all();
    }

    void leave() {
        const std::lock_guard lock(mMutex);
        --mBusy;
        mChanged.notify_all();
    }

    bool add(const std::string& name, const sp<IBase>& service) {
        const std::lock_guard lock(mMutex);
        if (mIsConfigured) mServices[name] = service;
        return mIsConfigured;
    }

    sp<IBase> find(const std::string& name) {
        const std::lock_guard lock(mMutex);
        const auto found = mServices.find(name);
        return found == mServices.end() ? nullptr : found->second;
    }

  private:
    // A caller that has yet to join is counted among the pool's threads, and serves nobody.
    size_t serving() const { return mThreads - (mCallerIsMissing ? 1 : 0); }

    std::mutex mMutex;
    std::condition_variable mChanged;
    size_t mThreads = 1, mBusy = 0;
    bool mIsConfigured = false, mCallerIsMissing = false;
    uint64_t mTickets = 0, mNext = 0;
    std::map<std::string, sp<IBase>> mServices;
};

Pool& pool() {
    static auto* const onlyOne = new Pool;  // calls may come in while the process ends
    return *onlyOne;
}

}  // namespace

void configureRpcThreadpool(size_t maxThreads, bool callerWillJoin) {
    pool().configure(maxThreads, callerWillJoin);
}

void joinRpcThreadpool() { pool().join(); }

namespace details {

status_t registerAsServiceInternal(const sp<IBase>& service, const std::string& name) {
    std::string descriptor;
    const auto told = service->interfaceDescriptor(
        [&descriptor](const hidl_string& own) { descriptor = std::string(own); });
    if (told.isOk() && pool().add(descriptor + "/" + name, service)) return OK;
    ALOGE("Cannot register '%s': nobody could call it, there is no pool", name.c_str());
    return INVALID_OPERATION;
}

}  // namespace details

namespace standin {

void callFromOutside(const std::function<void()>& call) {
    struct Thread {
        Thread() { pool().enter(); }
        ~Thread() { pool().leave(); }
        Thread(const Thread&) = delete;
        Thread& operator=(const Thread&) = delete;
    } const thread;
    call();
}

sp<IBase> registered(const std::string& descriptor, const std::string& name) {
    return pool().find(descriptor + "/" + name);
}

void endServing() { pool().end(); }

}  // namespace standin
}  // namespace android::hardware
