#include "fpga/flash_update.h"

#include <quil_hal.h>
#include <stdio.h>
#include <unistd.h>

#include "common/log.h"
#include "common/pause.h"
#include "common/shell.h"
#include "config/config_info.h"
#include "fpga/gpio_line.h"

using quil::common::kFirmwareUpdateTag;
using quil::common::pauseS;
using quil::common::pauseUs;
using quil::common::runShell;
using quil::config::ConfigText;
using quil::config::currentConfig;
using quil::fpga::driveLine;
using quil::fpga::GpioLine;
using quil::fpga::kHigh;
using quil::fpga::kLow;

namespace {

// The shell finds the tool by its bare name; its usual place is only checked for the log.
constexpr char kEraseCommand[] = "mtd_debug erase /dev/mtd0 0 0xD00000";
constexpr char kWriteCommand[] = "mtd_debug write /dev/mtd0 0 %zu %s";
constexpr char kTool[] = "/vendor/bin/mtd_debug";
constexpr size_t kCommandSize = 256;

constexpr int kDoneReads = 20;
constexpr useconds_t kDonePauseUs = 500000;
constexpr unsigned kUpdateInProgressPauseS = 1;

bool isThere(const char* function, const char* path, const char* name) {
    if (access(path, F_OK) != 0) {
        perror("access");
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: %s not exist\n", function, name);
        return false;
    }
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: %s exist\n", function, name);
    return true;
}

bool isImageThere(const char* function) {
    const ConfigText image(currentConfig().fpga_fw_path);
    return isThere(function, image.text, image.text);
}

bool isToolThere(const char* function) { return isThere(function, kTool, "mtd_debug tool"); }

// A size that cannot be read is not 0 and passes here: the write fails later.
bool readImageSize(const char* function, uint32_t& size) {
    size = getFileSize(ConfigText(currentConfig().fpga_fw_path).text);
    const auto shown = static_cast<unsigned long>(size);
    if (size == 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: invalid heron_fpga_fw size = %lu\n", function,
                       shown);
        return false;
    }
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: fpga_fw_size = %lu\n", function, shown);
    return true;
}

bool areLinesConfigured(const char* function, const GpioLine& control,
                        const GpioLine& configuration) {
    if (control.gpio >= 1 && configuration.gpio >= 1) return true;
    QUIL_LOG_ERROR(kFirmwareUpdateTag,
                   "%s: invalid fpga_control_gpio_id = %d or fpga_config_gpio_id = %d\n", function,
                   control.gpio, configuration.gpio);
    return false;
}

bool runTool(const char* function, const char* command, const char* action) {
    const int status = runShell(command);
    if (status != 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: mtd_debug %s exit status: %d\n", function, action,
                       status >> 8);
        return false;
    }
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: mtd_debug %s success\n", function, action);
    return true;
}

bool eraseFlash(const char* function) { return runTool(function, kEraseCommand, "erase"); }

bool writeFlash(const char* function, uint32_t size) {
    const ConfigText image(currentConfig().fpga_fw_path);
    char command[kCommandSize] = {};
    snprintf(command, sizeof(command), kWriteCommand, static_cast<size_t>(size), image.text);
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: cmd = %s\n", function, command);
    return runTool(function, command, "write");
}

// Another thread clears the flag.
bool isUpdateInProgress() {
    return __atomic_load_n(&currentConfig().fw_updating, __ATOMIC_ACQUIRE) == 1;
}

bool seekToEnd(FILE* file, long& position) {
    if (fseek(file, 0, SEEK_END) != 0) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: Error seeking to end of file\n", "getFileSize");
        return false;
    }
    position = ftell(file);
    if (position == -1) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: Error telling file size\n", "getFileSize");
        return false;
    }
    return true;
}

}  // namespace

uint32_t getFileSize(const char* path) {
    FILE* file = path != nullptr ? fopen(path, "rb") : nullptr;
    if (file == nullptr) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: Error opening file\n", __func__);
        return static_cast<uint32_t>(-1);
    }
    long position = -1;
    const bool known = seekToEnd(file, position);
    fclose(file);
    return static_cast<uint32_t>(known ? position : -1);
}

int32_t fpgaCheckDone(void) {
    const int32_t gpio = currentConfig().fpga_done_gpio;
    if (gpio < 1) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: invalid fpga_done_gpio_id = %d\n", __func__, gpio);
        return 0;
    }
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: fpga done gpio id = %d\n", __func__, gpio);
    int32_t level = 0;
    for (int i = 0; i < kDoneReads; ++i) {
        level = hal_gpio_getvalue(gpio);
        if (level == 1) {
            QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: FPGA_DONE is 1\n", __func__);
            return 1;
        }
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: FPGA_DONE is not 1, waiting 0.5 second...\n",
                       __func__);
        pauseUs(kDonePauseUs);
    }
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: Maximum wait time 10 second exceeded, exiting...\n",
                   __func__);
    return level;
}

int32_t fpgaFwUpdate(void) {
    const GpioLine control = {"control gpio", currentConfig().fpga_control_gpio};
    const GpioLine configuration = {"config gpio", currentConfig().fpga_config_gpio};
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: is called\n", __func__);
    if (!isImageThere(__func__)) return -1;
    uint32_t size = 0;
    if (!readImageSize(__func__, size)) return -1;
    if (!areLinesConfigured(__func__, control, configuration)) return -1;
    if (!driveLine(__func__, control, kLow)) return -1;
    if (!driveLine(__func__, configuration, kLow)) return -1;
    if (!eraseFlash(__func__)) return -1;
    if (!writeFlash(__func__, size)) return -1;
    if (!driveLine(__func__, control, kHigh)) return -1;
    if (!driveLine(__func__, configuration, kLow)) return -1;
    if (!driveLine(__func__, configuration, kHigh)) return -1;
    if (fpgaCheckDone() == 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: fpga done pin check failed\n", __func__);
        return -1;
    }
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: fpga done pin check success\n", __func__);
    return 0;
}

int32_t fpgaFlashFormat(void) {
    const GpioLine control = {"gpio", currentConfig().fpga_control_gpio};
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: is called\n", __func__);
    if (control.gpio < 1) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: invalid fpga_control_gpio_id = %d\n", __func__,
                       control.gpio);
        return -1;
    }
    if (!driveLine(__func__, control, kLow)) return -1;
    if (!isToolThere(__func__)) return -1;
    if (!eraseFlash(__func__)) return -1;
    if (!driveLine(__func__, control, kHigh)) return -1;
    return 0;
}

int32_t fpgaFlashWrite(void) {
    const GpioLine control = {"gpio", currentConfig().fpga_control_gpio};
    const GpioLine configuration = {"gpio", currentConfig().fpga_config_gpio};
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: is called\n", __func__);
    if (!isImageThere(__func__)) return -1;
    if (!isToolThere(__func__)) return -1;
    uint32_t size = 0;
    if (!readImageSize(__func__, size)) return -1;
    if (!areLinesConfigured(__func__, control, configuration)) return -1;
    if (!driveLine(__func__, control, kLow)) return -1;
    if (!driveLine(__func__, configuration, kLow)) return -1;
    if (!writeFlash(__func__, size)) return -1;
    if (!driveLine(__func__, control, kHigh)) return -1;
    while (isUpdateInProgress()) pauseS(kUpdateInProgressPauseS);
    if (!driveLine(__func__, configuration, kLow)) return -1;
    if (!driveLine(__func__, configuration, kHigh)) return -1;
    return 0;
}
