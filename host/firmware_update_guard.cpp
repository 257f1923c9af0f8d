#include "host/firmware_update_guard.h"

#include <atomic>
#include <cassert>

#include "update/config_info.h"

namespace quil::host {
namespace {

// The flag is a plain word of the shared record, and requests look at it from their own threads.
void setUpdating(int32_t updating) {
    assert(config_info != nullptr);
    std::atomic_ref<int32_t>(config_info->fw_updating).store(updating);
}

}  // namespace

FirmwareUpdateGuard::FirmwareUpdateGuard() { setUpdating(1); }

FirmwareUpdateGuard::~FirmwareUpdateGuard() { setUpdating(0); }

}  // namespace quil::host
