#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <hwbinder/IInterface.h>

#include <string>

namespace android::hardware {

// Whether both refer to the same object. Proxies do when they stand for the same binder: each call
// that hands an object over may make a new one.
bool interfacesEqual(const sp<hidl::base::V1_0::IBase>& left,
                     const sp<hidl::base::V1_0::IBase>& right);

// The pool that calls from other processes run on; the calling thread is one of maxThreads when it
// will join. Who calls here is a test (<standin/rpc_threadpool.h>). Joining a pool that was never
// configured returns at once.
void configureRpcThreadpool(size_t maxThreads, bool callerWillJoin);
void joinRpcThreadpool();

namespace details {

// Whether the object says that it implements the interface named castTo. Its failure to answer is
// passed on when emitError, and is a plain "no" otherwise.
Return<bool> canCastInterface(hidl::base::V1_0::IBase* interface, const char* castTo,
                              bool emitError = false);

template <typename IChild, typename IParent, typename BpChild = void>
Return<sp<IChild>> castInterface(sp<IParent> parent, const char* childIndicator, bool emitError) {
    if (parent.get() == nullptr) return sp<IChild>();
    Return<bool> canCast = canCastInterface(parent.get(), childIndicator, emitError);
    if (!canCast.isOk()) return StatusOf<bool, sp<IChild>>(canCast);
    if (!canCast) return sp<IChild>();
    return sp<IChild>(static_cast<IChild*>(parent.get()));
}

}  // namespace details
}  // namespace android::hardware
