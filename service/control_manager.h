// An empty class that other vendor components create; this library does not.
#pragma once

#include "common/export.h"

class QUIL_EXPORT ControlManager {
  public:
    ControlManager();
    ~ControlManager();
};
