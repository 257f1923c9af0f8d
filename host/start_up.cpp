#include "host/start_up.h"

#include <errno.h>
#include <string.h>

#include "config/config_info.h"
#include "mculink/uart.h"

namespace quil::host {

StartUpResult startUp() {
    if (parseConfigInfo() != 0) {
        if (config_info != nullptr) config_info->mcu_fd = -1;
        return {StartUpError::kConfiguration,
                "the product configuration could not be read (no product information block?)"};
    }
    config_info->mcu_fd = -1;
    const std::string path = config_info->mcu_uart_path;
    if (path.empty() || path.find("UNDEF") != std::string::npos) {
        return {StartUpError::kNoUartPath,
                "the product file names no serial device for the MCU (mcu_uart_path)"};
    }
    errno = 0;
    const int link = sdk_uart_init(path.c_str(), config_info->mcu_baud_rate);
    if (link < 0) {
        return {StartUpError::kLink,
                "the MCU link " + path + " could not be opened: " + strerror(errno)};
    }
    config_info->mcu_fd = link;
    return {};
}

void shutDown() {
    if (config_info == nullptr || config_info->mcu_fd < 0) return;
    sdk_uart_close(config_info->mcu_fd);
    config_info->mcu_fd = -1;
}

}  // namespace quil::host
