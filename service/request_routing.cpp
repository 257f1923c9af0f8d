// From the bytes of a request to the handler that its command asks for.
#include "common/little_endian.h"
#include "common/log.h"
#include "config/config_info.h"
#include "service/quil_service_manager.h"

namespace quil::hardware::quilservicemanager::implementation {

using common::getLe16;
using common::getLe32;
using common::kServiceTag;

namespace {

constexpr size_t kErrCodeAt = 4, kLengthAt = 6, kBodyAt = 8;
constexpr size_t kRequestMost = kBodyAt + UINT16_MAX;  // more does not fit `length`

bool isWholeRequest(const hidl_vec<uint8_t>& request) {
    return request.size() >= kBodyAt && request.size() <= kRequestMost;
}

struct CommandType {
    uint32_t cmd;
    hidl_service_type_t type;
};
constexpr CommandType kOwnCommands[] = {
    {kCommandLowPower, HIDL_SERVICE_TYPE_POWER_CONTROL},
    {kCommandNormalPower, HIDL_SERVICE_TYPE_POWER_CONTROL},
    {kCommandSelfTest, HIDL_SERVICE_TYPE_SELF_TEST},
};

hidl_service_type_t typeOf(uint32_t cmd) {
    if (cmd < kMcuCommandEnd) return HIDL_SERVICE_TYPE_MCU;
    for (const CommandType& row : kOwnCommands) {
        if (row.cmd == cmd) return row.type;
    }
    return HIDL_SERVICE_TYPE_INVALID;
}

void logPowerMode(const char* mode) {
    QUIL_LOG_DEBUG(kServiceTag, "%s\n", mode);
    const config_info_t* info = config_info;
    if (info == nullptr) return;  // nothing parsed yet
    QUIL_LOG_DEBUG(
        kServiceTag,
        "%s: mcu_fw_path = %s, mcu_fw_version = %s, fpga_fw_path = %s, fpga_fw_version = %s, "
        "mcu_type = %d, mcu_sock_path = %s, mcu_uart_path = %s,     mcu_baud_rate = %d, "
        "mcu_witch_gpio_id = %d, mcu_pulse_gpio_id = %d, fpga_control_gpio_id = %d, "
        "fpga_config_gpio_id = %d, fpga_done_gpio_id = %d\n",
        mode, info->mcu_fw_path, info->mcu_fw_version, info->fpga_fw_path, info->fpga_fw_version,
        info->mcu_type, info->mcu_sock_path, info->mcu_uart_path, info->mcu_baud_rate,
        info->mcu_wdt_switch, info->mcu_wdt_pulse, info->fpga_control_gpio, info->fpga_config_gpio,
        info->fpga_done_gpio);
}

}  // namespace

Return<int32_t> QuilServiceManager::convertRequestToTclvMsg(const hidl_vec<uint8_t>& request,
                                                            tclvMsg* msg) {
    if (msg == nullptr) {
        QUIL_LOG_DEBUG(kServiceTag, "%s: invalid tclv Msg is NULL\n", __func__);
        return -1;
    }
    if (!isWholeRequest(request)) {
        QUIL_LOG_DEBUG(kServiceTag, "%s: request length < 0 is invalid.\n", __func__);
        return -1;
    }
    for (size_t i = 0; i < request.size(); ++i) {
        QUIL_LOG_DEBUG(kServiceTag, "%s: all request[%d] = %x\n", __func__, static_cast<int>(i),
                       request[i]);
    }
    const uint8_t* bytes = request.data();
    msg->cmd = getLe32(bytes);
    msg->errCode = getLe16(bytes + kErrCodeAt);
    msg->length = getLe16(bytes + kLengthAt);
    msg->msgBody.assign(bytes + kBodyAt, bytes + request.size());
    QUIL_LOG_DEBUG(kServiceTag,
                   "%s: request msg->cmd = 0x%08X, msg->errCode = 0x%04X, msg->length = 0x%04X\n",
                   __func__, msg->cmd, msg->errCode, msg->length);

    // What was received wins over what was declared.
    const auto bodySize = static_cast<uint16_t>(msg->msgBody.size());
    if (msg->length != bodySize) {
        QUIL_LOG_DEBUG(kServiceTag,
                       "%s: msg->length(0x%x) is not eq to msgBody's size(0x%x), resize\n",
                       __func__, msg->length, bodySize);
        msg->length = bodySize;
    }
    for (size_t i = 0; i < msg->msgBody.size(); ++i) {
        QUIL_LOG_DEBUG(kServiceTag, "%s: msgBody[%d] = 0x%x\n", __func__, static_cast<int>(i),
                       msg->msgBody[i]);
    }
    return 0;
}

Return<int32_t> QuilServiceManager::getBusinessTypeByTclvMsg(tclvMsg* msg,
                                                             hidl_service_type_t* type) {
    if (msg == nullptr || type == nullptr) {
        QUIL_LOG_ERROR(kServiceTag, "%s: invalid tclv msg or type is NULL\n", __func__);
        return -1;
    }
    *type = typeOf(msg->cmd);
    QUIL_LOG_DEBUG(kServiceTag, "%s: parse business type = %u\n", __func__,
                   static_cast<unsigned>(*type));
    return 0;
}

Return<int32_t> QuilServiceManager::powerControl(tclvMsg* msg) {
    QUIL_LOG_DEBUG(kServiceTag, "%s\n", __func__);
    if (msg == nullptr) return 0;
    if (msg->cmd == kCommandLowPower) return lowPowerMode();
    if (msg->cmd == kCommandNormalPower) return normalPowerMode();
    return 0;
}

Return<int32_t> QuilServiceManager::lowPowerMode() {
    logPowerMode(__func__);
    return 0;
}

Return<int32_t> QuilServiceManager::normalPowerMode() {
    logPowerMode(__func__);
    return 0;
}

}  // namespace quil::hardware::quilservicemanager::implementation
