#include "isp/boot_mode.h"

#include "common/log.h"
#include "common/pause.h"
#include "common/shell.h"

using quil::common::kFirmwareUpdateTag;

namespace {

constexpr char kBoot0Low[] = "echo 0 > /sys/class/quilgpios/MCU_BOOT0/value";
constexpr char kBoot0High[] = "echo 1 > /sys/class/quilgpios/MCU_BOOT0/value";
constexpr char kResetLow[] = "echo 0 > /sys/class/quilgpios/MCU_NRST/value";
constexpr char kResetHigh[] = "echo 1 > /sys/class/quilgpios/MCU_NRST/value";

struct Step {
    const char* command;
    unsigned pauseMs;  // after it
};
constexpr Step kIspInit[] = {{kBoot0High, 100}, {kResetLow, 300}, {kResetHigh, 100}};
constexpr Step kIspClose[] = {{kBoot0Low, 300}, {kResetLow, 100}, {kResetHigh, 100}};
constexpr Step kEnterIspMode[] = {{kResetLow, 400}, {kBoot0High, 400}, {kResetHigh, 0}};
constexpr Step kExitIspMode[] = {{kBoot0Low, 20}, {kResetLow, 20}, {kResetHigh, 0}};

template <size_t kSteps>
void run(const Step (&steps)[kSteps]) {
    for (const Step& step : steps) {
        quil::common::runShell(step.command);
        if (step.pauseMs > 0) quil::common::pauseMs(step.pauseMs);
    }
}

}  // namespace

int mcu_isp_init(void) {
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, " ==========> [isp init]. \n");
    run(kIspInit);
    return 0;
}

int mcu_isp_close(void) {
    run(kIspClose);
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, " <========== [isp close]. \n");
    return 0;
}

int mcu_enter_isp_mode(void) {
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: ==========> [enter isp]. \n", __func__);
    run(kEnterIspMode);
    return 0;
}

int mcu_exit_isp_mode(void) {
    run(kExitIspMode);
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: <========== [exit isp]. \n", __func__);
    return 0;
}
