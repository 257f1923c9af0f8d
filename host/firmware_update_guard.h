#pragma once

namespace quil::host {

// Says "firmware is being written" for as long as it lives: the service answers MCU requests with
// the single byte 0xFF meanwhile. Needs a parsed product configuration.
class FirmwareUpdateGuard {
  public:
    FirmwareUpdateGuard();
    ~FirmwareUpdateGuard();
    FirmwareUpdateGuard(const FirmwareUpdateGuard&) = delete;
    FirmwareUpdateGuard& operator=(const FirmwareUpdateGuard&) = delete;
};

}  // namespace quil::host
