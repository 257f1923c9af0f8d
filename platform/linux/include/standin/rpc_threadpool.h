// The two ends of the pool that have no name on the platform, where the binder is at them: a call
// that comes in, and the end of the process.
#pragma once

#include <android/hidl/base/1.0/IBase.h>

#include <functional>
#include <string>

namespace android::hardware::standin {

// Runs `call` as one from another process runs: it holds one of the pool's threads from its start
// to its end, and stands outside, first come first served, while none is free. The caller's own
// thread does the work: a pool is a number here. Without a configured pool there is one thread.
void callFromOutside(const std::function<void()>& call);

// What is registered under this name as "package@1.0::IFoo"; null when nothing is.
sp<hidl::base::V1_0::IBase> registered(const std::string& descriptor, const std::string& name);

// What the end of the serving process does: joinRpcThreadpool returns, and registrations and the
// pool's configuration are forgotten.
void endServing();

}  // namespace android::hardware::standin
