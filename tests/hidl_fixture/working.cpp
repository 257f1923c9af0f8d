#include <android/hidl/manager/1.0/IServiceNotification.h>
#include <string.h>

using ::android::hardware::hidl_string;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::android::hidl::manager::V1_0::IServiceNotification;

namespace {

struct Notification : IServiceNotification {
    Return<void> onRegistration(const hidl_string&, const hidl_string&, bool) override {
        return Void();
    }
};

}  // namespace

// There is one instance.
extern "C" IServiceNotification* HIDL_FETCH_IServiceNotification(const char* name) {
    return strcmp(name, "default") == 0 ? new Notification : nullptr;
}
