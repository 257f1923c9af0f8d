#pragma once

#include <android/hidl/base/1.0/IBase.h>
#include <utils/Errors.h>

#include <string>

namespace android::hardware::details {

// Opens the implementation library of descriptor ("package@1.0::IFoo": file
// "package@1.0-impl.so") and asks its factory HIDL_FETCH_IFoo for the named instance. The file is
// looked for in the directories of QUIL_HW_LIBRARY_PATH (separated by colons), then where the
// dynamic linker looks: libraries already loaded, LD_LIBRARY_PATH, the directory of this library.
// Answers null, with an error in the log, when there is no such library, factory or instance.
//
// There is no service manager and no second process here: the same object is answered whether or
// not an unwrapped one (getStub) is asked for, and nothing is waited for.
sp<hidl::base::V1_0::IBase> getRawServiceInternal(const std::string& descriptor,
                                                  const std::string& instance, bool retry,
                                                  bool getStub);

// Refused until a pool is configured (configureRpcThreadpool). What is registered is for
// <standin/rpc_threadpool.h> to find: getService asks the implementation library all the same.
status_t registerAsServiceInternal(const sp<hidl::base::V1_0::IBase>& service,
                                   const std::string& name);

}  // namespace android::hardware::details
