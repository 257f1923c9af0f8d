#pragma once

#include <stdint.h>

namespace quil::host {

// Whose firmware is being written, as the record's fw_updating says it. Any value but kNobodys
// turns MCU requests away with the single byte 0xFF. At kMcus alone the library's FPGA update holds
// its restart of the FPGA back until the MCU's is over, so it must not stand at that for the FPGA's
// own.
enum class Firmware : int32_t { kNobodys = 0, kMcus = 1, kFpgas = 2 };

Firmware firmwareBeingWritten();  // kNobodys before the configuration is parsed

// Says so for as long as it lives, then what was said before. Needs a parsed product configuration.
class FirmwareUpdateGuard {
  public:
    explicit FirmwareUpdateGuard(Firmware whose = Firmware::kMcus);
    ~FirmwareUpdateGuard();
    FirmwareUpdateGuard(const FirmwareUpdateGuard&) = delete;
    FirmwareUpdateGuard& operator=(const FirmwareUpdateGuard&) = delete;

    // Goes over to another, with no moment in between at which nobody's is being written.
    void changeTo(Firmware whose);

  private:
    const Firmware mFormer;
};

}  // namespace quil::host
