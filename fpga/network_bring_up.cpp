#include "fpga/network_bring_up.h"

#include <fcntl.h>
#include <stdint.h>
#include <unistd.h>

#include "common/log.h"
#include "common/pause.h"
#include "common/shell.h"
#include "common/stdout_message.h"
#include "fpga/spi_link.h"

using quil::common::kFirmwareUpdateTag;
using quil::common::pauseUs;
using quil::common::printFlushed;
using quil::common::runShell;

namespace {

constexpr char kUnloadDriver[] = "rmmod dwmac_meson8b";
constexpr char kLoadDriver[] = "insmod /vendor_dlkm/lib/modules/dwmac-meson8b.ko";
constexpr char kSetAddress[] = "ifconfig eth1 240.10.10.10 netmask 255.255.255.0 up";
constexpr const char* kPhyRegisterWrites[] = {
    "echo w 0x1f 0xd08 > /sys/class/ethernet/phyreg",
    "echo r 0x10 > /sys/class/ethernet/phyreg",
    "echo w 0x10 0x5e > /sys/class/ethernet/phyreg",
};
constexpr char kPhyResetLine[] = "/sys/class/quilgpios/RTL8211FS_RSTN/value";

constexpr useconds_t kPhyResetLowUs = 500000, kPhyResetReleasedUs = 200000;
constexpr useconds_t kDriverUnloadedUs = 1000;
constexpr useconds_t kPollPauseUs = 2000;
constexpr int kPolls = 10;
constexpr int kAttempts = 5;
constexpr uint8_t kReady = 1;

struct PolledState {
    int (*read)(unsigned char* data, unsigned length);
    const char* shown;
    const char* ok;
};
constexpr PolledState kClock = {
    readFpgaSgmiiClockState,
    "%s,readFpgaSgmiiClockState state = 0x%02x\n",
    "%s: readFpgaSgmiiClockState ok\n",
};
constexpr PolledState kNegotiation = {
    readFpgaSgmiiNegotiationState,
    "%s,readFpgaSgmiiNegotiationState state = 0x%02x\n",
    "%s: readFpgaSgmiiNegotiationState ok\n",
};

// After a failed read the state's former value is checked.
bool pollUntilReady(const char* function, const PolledState& polled) {
    uint8_t state = 0;
    for (int i = 0; i < kPolls; ++i) {
        if (polled.read(&state, 1) < 0) {
            QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: spi_read_state failed\n", function);
        }
        QUIL_LOG_INFO(kFirmwareUpdateTag, polled.shown, function, state);
        if (state == kReady) {
            QUIL_LOG_INFO(kFirmwareUpdateTag, polled.ok, function);
            return true;
        }
        pauseUs(kPollPauseUs);
    }
    return false;
}

bool writeLevel(int line, char level) { return write(line, &level, 1) >= 0; }

// Drives the line low, then high.
bool pulseReset(int line, const char* function) {
    if (!writeLevel(line, '0')) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "reset 8211fs to low failed! %s\n", function);
        return false;
    }
    pauseUs(kPhyResetLowUs);
    if (!writeLevel(line, '1')) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "reset 8211fs to hight failed! %s\n", function);
        return false;
    }
    return true;
}

}  // namespace

// Exit codes are ignored, deliberately: the link decides.

int fpgaDwmacConfig(void) {
    runShell(kUnloadDriver);
    QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: rmmod dwmac_meson8b\n", __func__);
    pauseUs(kDriverUnloadedUs);
    runShell(kLoadDriver);
    QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: insmod dwmac-meson8b.ko\n", __func__);
    return 0;
}

int fpgaEthConfig(void) {
    runShell(kSetAddress);
    QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: config eth1 ip mask up\n", __func__);
    return 0;
}

int fpgaPhyConfig(void) {
    for (const char* command : kPhyRegisterWrites) runShell(command);
    QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: set phy register\n", __func__);
    return 0;
}

int reset8211FS(void) {
    const int line = open(kPhyResetLine, O_WRONLY);
    if (line < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "open failed! %s\n", __func__);
        return -1;
    }
    const bool pulsed = pulseReset(line, __func__);
    close(line);
    if (!pulsed) return -1;
    pauseUs(kPhyResetReleasedUs);
    QUIL_LOG_INFO(kFirmwareUpdateTag, "reset 8211fs successful\n");
    return 0;
}

int fpgaPhySgmiiConfig(void) {
    if (!pollUntilReady(__func__, kClock)) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: readFpgaSgmiiClockState failed\n", __func__);
        return -1;
    }
    reset8211FS();
    fpgaDwmacConfig();
    fpgaEthConfig();
    fpgaPhyConfig();
    if (sendFpgaTxRxReset() < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: sendFpgaTxRxReset failed\n", __func__);
        return -1;
    }
    QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: sendFpgaTxRxReset ok\n", __func__);
    // Negotiation that never completes is no failure, deliberately: the link decides.
    pollUntilReady(__func__, kNegotiation);
    if (readRtl8211fsPhyLink() < 1) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: readRtl8211fsPhyLink failed\n", __func__);
        return -1;
    }
    QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: readRtl8211fsPhyLink ok\n", __func__);
    return 0;
}

int fpgaNetworkConfig(void) {
    printFlushed("%s\n", "in fpgaNetworkConfig");
    for (int i = 0; i < kAttempts; ++i) {
        printFlushed("%s\n", "fpgaNetworkConfig try");
        if (fpgaPhySgmiiConfig() == 0) {
            QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: fpgaPhySgmiiConfig ok\n", __func__);
            return 0;
        }
    }
    QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: fpgaPhySgmiiConfig failed\n", __func__);
    return 0;
}
