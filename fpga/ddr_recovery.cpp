#include "fpga/ddr_recovery.h"

#include <stdint.h>
#include <unistd.h>

#include "common/log.h"
#include "common/pause.h"
#include "config/config_info.h"
#include "fpga/flash_update.h"
#include "fpga/gpio_line.h"
#include "fpga/spi_link.h"

using quil::common::kFirmwareUpdateTag;
using quil::common::pauseS;
using quil::common::pauseUs;
using quil::config::currentConfig;
using quil::fpga::driveLine;
using quil::fpga::GpioLine;
using quil::fpga::kHigh;
using quil::fpga::kLow;

namespace {

constexpr uint8_t kDdrGood = 1, kDdrNotAsked = 2;
constexpr int kAttempts = 3;
constexpr unsigned kBeforeReadS = 1;
constexpr useconds_t kProgramPulseUs = 100000;

// Messages of the recovery carry this name, not a function's: tools in the field look for it.
constexpr char kRecovery[] = "fpgaRecovery";

void recover() {
    const GpioLine program = {"PROG_B gpio", currentConfig().fpga_control_gpio};
    if (!driveLine(kRecovery, program, kLow)) return;
    pauseUs(kProgramPulseUs);
    if (!driveLine(kRecovery, program, kHigh)) return;
    if (fpgaCheckDone() != 0) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: fpgaCheckDone ok\n", kRecovery);
    } else {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: fpgaCheckDone failed\n", kRecovery);
    }
}

}  // namespace

int fpgaCheckDDRAndRecovery(void) {
    uint8_t state = kDdrNotAsked;
    for (int i = 0; i < kAttempts; ++i) {
        pauseS(kBeforeReadS);
        if (readFpgaDdrState(&state) < 0) {
            QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: spi_read_fpga_ddr_state failed\n", __func__);
        }
        QUIL_LOG_INFO(kFirmwareUpdateTag, "%s, fpga_ddr_state = 0x%02x\n", __func__, state);
        if (state == kDdrGood) return 0;
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: invalid fpga_ddr_state = %d\n", kRecovery, state);
        recover();
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: ddr_recovery end\n", __func__);
    }
    pauseS(kBeforeReadS);
    readFpgaDdrState(&state);
    // Looser than the loop, deliberately: whatever is not 0 counts as ready, failed reads included.
    if (state != 0) return 0;
    QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: ddr_recovery failed\n", __func__);
    return -1;
}
