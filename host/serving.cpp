#include "host/serving.h"

#include <android/log.h>
#include <hidl/HidlTransportSupport.h>

#include <string_view>

#include "host/hosting_component.h"
#include "host/log_tag.h"

namespace quil::host {
namespace {

struct Switch {
    std::string_view argument;
    bool BootJobs::*job;
};
constexpr Switch kSwitches[] = {{"--leave-out=mcu", &BootJobs::updateMcu},
                                {"--leave-out=fpga", &BootJobs::loadFpga}};

bool leaveOut(BootJobs& jobs, std::string_view argument) {
    for (const Switch& known : kSwitches) {
        if (known.argument != argument) continue;
        jobs.*known.job = false;
        return true;
    }
    return false;
}

bool registerService(const android::sp<IQuilServiceManager>& service) {
    return service->registerAsService("default") == android::OK;
}

}  // namespace

int serve(int count, const char* const* arguments) {
    BootJobs jobs;
    jobs.loadFpga = true;
    jobs.requestsAtOnce = kRequestsAtOnce;
    jobs.letClientsIn = registerService;
    for (int i = 1; i < count; ++i) {
        if (leaveOut(jobs, arguments[i])) continue;
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "unknown argument %s\n", arguments[i]);
        return 2;
    }
    android::hardware::configureRpcThreadpool(kRpcThreads, true /* the calling thread joins */);
    HostingComponent host;
    const StartUpResult result = host.start(jobs);
    if (!result.ok()) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "%s\n", result.text.c_str());
        return 1;
    }
    android::hardware::joinRpcThreadpool();
    return 1;  // the pool is never left while the service lives
}

}  // namespace quil::host
