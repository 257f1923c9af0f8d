#include "fpga/load_process.h"

#include <cutils/properties.h>
#include <quil_fpga.h>
#include <quil_hal.h>

#include "common/log.h"
#include "common/pause.h"
#include "config/config_info.h"
#include "fpga/ddr_recovery.h"
#include "fpga/flash_update.h"
#include "fpga/network_bring_up.h"
#include "fpga/screen/screen_params.h"

using quil::common::kFirmwareUpdateTag;
using quil::common::pauseS;
using quil::config::currentConfig;
using quil::fpga::kUpdateProperty;

namespace {

constexpr unsigned kAfterFormatS = 1, kBeforeEth1S = 1, kAfterEth1S = 1;

// Only the first character counts.
bool isUpdatePending(const char* function) {
    char value[PROPERTY_VALUE_MAX] = {};
    property_get(kUpdateProperty, value, "0");
    QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: persist.quil.system.fpga.fw.update = %s\n", function,
                  value);
    return value[0] == '1';
}

void markUpdated(const char* function) {
    property_set(kUpdateProperty, "0");
    QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: persist.quil.system.fpga.fw.update set to 0\n",
                  function);
}

// Logs the outcome of a step under `step`, which is not always the function's name.
bool report(const char* function, const char* step, bool ok) {
    if (ok) {
        QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: %s ok\n", function, step);
    } else {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: %s failed\n", function, step);
    }
    return ok;
}

// The steps after DONE. A failed step is logged and does not stop the sequence.
void bringUpHeron(const char* function) {
    if (fpgaCheckDDRAndRecovery() < 0) report(function, "fpgaRecoveryDdr", false);
    report(function, "fpgaRecoveryDdr", true);  // also after a failure: deliberate
    if (fpgaLoadScreenParamsBySpi() < 0) report(function, "fpgaLoadScreenParamsBySpi", false);
    fpgaNetworkConfig();
    report(function, "fpgaNetworkConfig", true);
}

bool updateHeron(const char* function) {
    if (!report(function, "fpgaFlashFormat", fpgaFlashFormat() >= 0)) return false;
    QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: now wait 1s...", function);
    pauseS(kAfterFormatS);
    if (!report(function, "fpgaFlashWrite", fpgaFlashWrite() >= 0)) return false;
    if (!report(function, "fpgaCheckDone", fpgaCheckDone() != 0)) return false;
    markUpdated(function);
    return true;
}

}  // namespace

int32_t fpgaLoadProcessHeron(void) {
    if (!isUpdatePending(__func__)) {
        if (!report(__func__, "fpgaCheckDone", fpgaCheckDone() != 0)) return -1;
        bringUpHeron(__func__);
        return 0;
    }
    if (!updateHeron(__func__)) return -1;
    bringUpHeron(__func__);
    // Only an update switches to UDP: deliberate.
    return report(__func__, "fpgaSwitchGmacToUdp", fpgaSwitchGmacToUdp() >= 0) ? 0 : -1;
}

int32_t fpgaLoadProcessKestrel(void) {
    // The record's own fields, which live as long as the process: a closed library may keep them.
    const config_info_t& config = currentConfig();
    const int32_t loaded = hal_fpga_load_program_sync(config.fpga_drv_path, config.fpga_fw_path);
    if (!report(__func__, "hal_fpga_load_program_sync", loaded >= 0)) return -1;
    pauseS(kBeforeEth1S);
    bi_fpga_eth1_config_kestrel();
    pauseS(kAfterEth1S);
    const int32_t sent =
        bi_fpga_load_screen_params_by_udp(config.fpga_parameter, config.hex_parameter);
    return report(__func__, "fpgaLoadScreenParamsByUdp", sent >= 0) ? 0 : -1;
}

int32_t fpgaLoadProcessWren_t507(void) {
    if (isUpdatePending(__func__)) {
        const bool updated = bi_fpga_active_update_program() >= 0;
        if (!report(__func__, "bi_fpga_active_update_program", updated)) return -1;
        markUpdated(__func__);
    }
    return report(__func__, "bi_fpga_load_parameter", bi_fpga_load_parameter() >= 0) ? 0 : -1;
}
