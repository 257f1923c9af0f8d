#include "isp/mcu_update.h"

#include <cutils/properties.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "common/log.h"
#include "common/pause.h"
#include "config/config_info.h"
#include "isp/isp_tasks.h"
#include "mculink/uart.h"

using quil::common::kFirmwareUpdateTag;
using quil::common::pauseMs;
using quil::config::ConfigText;
using quil::config::currentConfig;
using quil::isp::kMcuVersionProperty;
using quil::isp::kMcuVersionSize;

namespace {

constexpr int kProgrammingAttempts = 5;
constexpr unsigned kAnswerMs = 500;

// A constant frame of the MCU link, so that it uses up no label of the link's requests.
constexpr uint8_t kVersionRequest[] = {0x55, 0xBB, 0x00, 0x00, 0x00, 0x01, 0x07, 0x00, 0x19,
                                       0x00, 0x41, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                       0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00,
                                       0x00, 0x03, 0x00, 0x00, 0x01, 0x00, 0x78, 0x01};
static_assert(sizeof(kVersionRequest) == 35);

constexpr size_t kAnswerMost = 1024, kVersionAt = 46, kVersionLength = 15;

static_assert(kMcuVersionSize >= PROPERTY_VALUE_MAX, "a property has to fit");

void makeBlocking(int port) { fcntl(port, F_SETFL, fcntl(port, F_GETFL) & ~O_NONBLOCK); }

bool programOnce() {
    const config_info_t& info = currentConfig();
    ConfigText path(info.mcu_fw_path);
    ConfigText port(info.mcu_uart_path);
    ConfigText chip(info.mcu_serial);
    return mcu_isp_fw_update(path.text, port.text, chip.text) == 0;
}

bool program() {
    for (int attempt = 0; attempt < kProgrammingAttempts; ++attempt) {
        if (programOnce()) return true;
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: mcu_isp_fw_update failed\n", "doMcuUpdateByIsp");
    }
    QUIL_LOG_DEBUG(kFirmwareUpdateTag,
                   "The maximum retry times has been reached, and the program failed to execute "
                   "successfully\n");
    return false;
}

}  // namespace

int32_t serialInit(void) {
    const ConfigText path(currentConfig().mcu_uart_path);
    if (!quil::config::isSet(path.text)) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag,
                       "%s:config_info->mcu_uart_path is not set, need to check ini file.\n",
                       __func__);
        return -1;
    }
    const int port = sdk_uart_init(path.text, currentConfig().mcu_baud_rate);
    if (port < 0) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: init %s failed, _fd = %d\n", __func__, path.text,
                       port);
        return -1;
    }
    QUIL_LOG_INFO(kFirmwareUpdateTag, "%s: open %s _fd = %d\n", __func__, path.text, port);
    makeBlocking(port);
    return port;
}

int32_t getMcuFwVersion(int32_t fd, char* version) {
    if (version == nullptr) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: mcuIcVer is NULL\n", __func__);
        return -1;
    }
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: mcu_fd = %d\n", __func__, fd);
    if (write(fd, kVersionRequest, sizeof(kVersionRequest)) < 0) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: write request error\n", __func__);
        return -1;
    }
    pauseMs(kAnswerMs);
    char answer[kAnswerMost + 1] = {};
    const auto count = static_cast<int>(read(fd, answer, kAnswerMost));
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: mcu_fd = %d, data received(%u):\n", __func__, fd,
                   static_cast<unsigned>(count));
    // A missing or short answer gives an empty or cut version, which compares unequal.
    if (count >= 0) answer[std::min<size_t>(static_cast<size_t>(count), kAnswerMost)] = '\0';
    memcpy(version, answer + kVersionAt, kVersionLength);
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "mcuIcVer = %.15s\n", version);
    return 0;
}

int32_t checkMcuFwVersion(int32_t fd) {
    char version[kMcuVersionSize] = "V0.0.0.0";
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: is called\n", __func__);
    if (getMcuFwVersion(fd, version) < 0) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: getMcuFwVersion failed\n", __func__);
        property_get(kMcuVersionProperty, version, "V0");
    }
    const ConfigText shipped(currentConfig().mcu_fw_version);
    if (strcmp(version, shipped.text) != 0) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag,
                       "%s: mcuBinVer(%s) is not equal to mcuIcVer(%s), need update FW\n", __func__,
                       shipped.text, version);
        return 1;
    }
    QUIL_LOG_DEBUG(kFirmwareUpdateTag,
                   "%s: mcuBinVer(%s) is equal to mcuIcVer(%s), no need update FW\n", __func__,
                   shipped.text, version);
    return 0;
}

int32_t doMcuUpdateByIsp(void) {
    const ConfigText path(currentConfig().mcu_fw_path);
    if (access(path.text, F_OK) != 0) {
        perror("access");
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: %s not exist\n", __func__, path.text);
        return -1;
    }
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: %s exist\n", __func__, path.text);
    if (!program()) return -1;
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: mcu_isp_fw_update success\n", __func__);
    const ConfigText shipped(currentConfig().mcu_fw_version);
    property_set(kMcuVersionProperty, shipped.text);
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: set prop persist.quil.mcu_fw_version = %s\n", __func__,
                   shipped.text);
    return 0;
}

int32_t mcuFwUpdate(int32_t* fd) {
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: is called\n", __func__);
    if (fd == nullptr) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: fd is NULL\n", __func__);
        return -1;
    }
    if (checkMcuFwVersion(*fd) == 0) {
        // Logged as an error although nothing is wrong. -1, because 0 means that the descriptor
        // changed.
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: do not need upgrade FW\n", __func__);
        return -1;
    }
    if (doMcuUpdateByIsp() != 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: doMcuUpdate failed\n", __func__);
        return -1;
    }
    *fd = serialInit();
    if (*fd >= 0) return 0;
    QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: serialInit failed\n", __func__);
    return -1;
}
