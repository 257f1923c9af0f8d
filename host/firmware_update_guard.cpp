#include "host/firmware_update_guard.h"

#include <assert.h>

#include "config/config_info.h"

namespace quil::host {
namespace {

// The flag is a plain word of the shared record, and requests look at it from their own threads.
void setUpdating(Firmware whose) {
    assert(config_info != nullptr);
    __atomic_store_n(&config_info->fw_updating, static_cast<int32_t>(whose), __ATOMIC_SEQ_CST);
}

}  // namespace

Firmware firmwareBeingWritten() {
    if (config_info == nullptr) return Firmware::kNobodys;
    return static_cast<Firmware>(__atomic_load_n(&config_info->fw_updating, __ATOMIC_SEQ_CST));
}

FirmwareUpdateGuard::FirmwareUpdateGuard(Firmware whose) : mFormer(firmwareBeingWritten()) {
    setUpdating(whose);
}

FirmwareUpdateGuard::~FirmwareUpdateGuard() { setUpdating(mFormer); }

void FirmwareUpdateGuard::changeTo(Firmware whose) { setUpdating(whose); }

}  // namespace quil::host
