#include <stdexcept>

#include "host/start_up.h"
#include "tools/quilctl/mcu.h"
#include "update/config_info.h"
#include "update/mcu_update.h"

namespace quil::tools {

McuLink::McuLink() {
    const host::StartUpResult result = host::startUp();
    if (!result.ok()) throw std::runtime_error(result.text);
}

McuLink::~McuLink() { host::shutDown(); }

std::string McuLink::version() const {
    char text[update::kMcuVersionSize] = {};
    return getMcuFwVersion(config_info->mcu_fd, text) == 0 ? text : "";
}

}  // namespace quil::tools
