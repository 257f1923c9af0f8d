#include "host/start_up.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include "config/config_info.h"
#include "mculink/uart.h"

namespace quil::host {
namespace {

// Why there is no link. The library closes what it could not open: errno is that of the closing.
std::string linkProblem(const std::string& path, int baud) {
    if (access(path.c_str(), R_OK | W_OK) != 0) return strerror(errno);
    return "the device did not open, or takes no " + std::to_string(baud) + " baud";
}

}  // namespace

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
    const int link = sdk_uart_init(path.c_str(), config_info->mcu_baud_rate);
    if (link < 0) {
        return {StartUpError::kLink, "the MCU link '" + path + "' could not be opened: " +
                                         linkProblem(path, config_info->mcu_baud_rate)};
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
