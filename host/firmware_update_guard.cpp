#include "host/firmware_update_guard.h"

#include <cassert>

#include "config/config_info.h"

namespace quil::host {
namespace {

// The flag is a plain word of the shared record, and requests look at it from their own threads.
void setUpdating(int32_t updating) {
    assert(config_info != nullptr);
    __atomic_store_n(&config_info->fw_updating, updating, __ATOMIC_SEQ_CST);
}

}  // namespace

FirmwareUpdateGuard::FirmwareUpdateGuard() { setUpdating(1); }

FirmwareUpdateGuard::~FirmwareUpdateGuard() { setUpdating(0); }

}  // namespace quil::host
