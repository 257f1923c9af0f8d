#include "host/mcu_bring_up.h"

#include <termios.h>

#include "config/config_info.h"
#include "host/firmware_update_guard.h"
#include "isp/mcu_update.h"
#include "mculink/uart.h"

namespace quil::host {
namespace {

// The boot loader's speed and parity stay on the port when a programming run fails, and the open
// link shares them.
class PortSettings {
  public:
    explicit PortSettings(int port) : mPort(port), mKnown(tcgetattr(port, &mSettings) == 0) {}

    void putBack() const {
        if (mKnown) tcsetattr(mPort, TCSANOW, &mSettings);
    }

  private:
    const int mPort;
    termios mSettings = {};
    const bool mKnown;
};

}  // namespace

McuFirmware bringMcuUpToDate() {
    const FirmwareUpdateGuard updating;
    const int32_t former = config_info->mcu_fd;
    const PortSettings settings(former);
    int32_t link = former;
    const int32_t result = mcuFwUpdate(&link);
    if (link == former) {
        settings.putBack();
        return McuFirmware::kLeftAsItWas;
    }
    // Clients are in already, and what they send looks at it.
    __atomic_store_n(&config_info->mcu_fd, link, __ATOMIC_RELEASE);
    sdk_uart_close(former);
    return result == 0 ? McuFirmware::kReprogrammed : McuFirmware::kLinkLost;
}

}  // namespace quil::host
