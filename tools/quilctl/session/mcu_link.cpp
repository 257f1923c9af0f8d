#include "tools/quilctl/session/mcu_link.h"

#include <stdexcept>

#include "config/config_info.h"
#include "host/start_up.h"
#include "isp/mcu_update.h"

namespace quil::tools {

McuLink::McuLink() {
    const host::StartUpResult result = host::startUp();
    if (!result.ok()) throw std::runtime_error(result.text);
}

McuLink::~McuLink() { host::shutDown(); }

std::string McuLink::version() const {
    char text[isp::kMcuVersionSize] = {};
    return getMcuFwVersion(config_info->mcu_fd, text) == 0 ? text : "";
}

}  // namespace quil::tools
