// The state of the service for `lshal debug`. Reads and never waits for a request: a service that
// hangs is what people look into.
#include <cutils/native_handle.h>
#include <stdarg.h>
#include <stdio.h>
#include <unistd.h>

#include "common/mutex_lock.h"
#include "common/version.h"
#include "config/config_info.h"
#include "service/quil_service_manager.h"

namespace quil::hardware::quilservicemanager::implementation {

using ::android::hardware::hidl_handle;
using ::android::hardware::hidl_string;
using common::MutexLock;

namespace {

// Text of a bounded length: what does not fit is left out.
class Report {
  public:
    [[gnu::format(printf, 2, 3)]] void add(const char* format, ...) {
        va_list values;
        va_start(values, format);
        const int wanted = vsnprintf(mText + mLength, sizeof(mText) - mLength, format, values);
        va_end(values);
        if (wanted > 0) mLength += static_cast<size_t>(wanted);
        if (mLength >= sizeof(mText)) mLength = sizeof(mText) - 1;
    }

    void writeTo(int descriptor) const {
        for (size_t done = 0; done < mLength;) {
            const ssize_t count = write(descriptor, mText + done, mLength - done);
            if (count <= 0) return;
            done += static_cast<size_t>(count);
        }
    }

  private:
    char mText[4096];
    size_t mLength = 0;
};

// A field of the record, which need not be terminated.
void addField(Report& report, const char* name, const char* field, size_t capacity) {
    report.add("  %s = %.*s\n", name, static_cast<int>(capacity), field);
}

void addConfiguration(Report& report) {
    const config_info_t* info = config_info;
    if (info == nullptr) {
        report.add("configuration: none parsed\n");
        return;
    }
    report.add("configuration:\n");
    addField(report, "product", info->product, sizeof(info->product));
    report.add("  mod_id = %d\n", info->mod_id);
    addField(report, "mcu_serial", info->mcu_serial, sizeof(info->mcu_serial));
    addField(report, "mcu_fw_version", info->mcu_fw_version, sizeof(info->mcu_fw_version));
    addField(report, "mcu_fw_path", info->mcu_fw_path, sizeof(info->mcu_fw_path));
    addField(report, "mcu_uart_path", info->mcu_uart_path, sizeof(info->mcu_uart_path));
    report.add("  mcu_baud_rate = %d\n", info->mcu_baud_rate);
    addField(report, "fpga_fw_version", info->fpga_fw_version, sizeof(info->fpga_fw_version));
    addField(report, "fpga_fw_path", info->fpga_fw_path, sizeof(info->fpga_fw_path));
    addField(report, "self_test_items", info->self_test_items, sizeof(info->self_test_items));
    report.add("firmware: fw_updating = %d, mcu_fd = %d\n",
               __atomic_load_n(&info->fw_updating, __ATOMIC_ACQUIRE),
               __atomic_load_n(&info->mcu_fd, __ATOMIC_ACQUIRE));
}

}  // namespace

Return<void> QuilServiceManager::debug(const hidl_handle& handle,
                                       const hidl_vec<hidl_string>& /*options*/) {
    const native_handle_t* descriptors = handle.getNativeHandle();
    if (descriptors == nullptr || descriptors->numFds < 1) return Void();
    size_t clients = 0;
    {
        const MutexLock lock(mClientsMutex);
        clients = mClients.size();
    }
    Report report;
    report.add("quil.hardware.quilservicemanager@1.0 %s\n", common::kVersion);
    addConfiguration(report);
    report.add(
        "requests: mcu = %u, power control = %u, self-test = %u, unknown = %u, refused = %u\n",
        mCounters.mcu.load(), mCounters.powerControl.load(), mCounters.selfTest.load(),
        mCounters.unknown.load(), mCounters.refused.load());
    report.add("time-outs = %u, last label = %u\n", mCounters.timeOuts.load(),
               mCounters.lastLabel.load());
    report.add("callbacks = %zu\n", clients);
    report.writeTo(descriptors->data[0]);
    return Void();
}

}  // namespace quil::hardware::quilservicemanager::implementation
