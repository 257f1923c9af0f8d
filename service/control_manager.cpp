#include "service/control_manager.h"

#include "common/log.h"

ControlManager::ControlManager() {
    QUIL_LOG_DEBUG(quil::common::kControlManagerTag, "ControlManager construct");
}

ControlManager::~ControlManager() = default;
