// An empty class that other vendor components create; this library does not.
#pragma once

#include "common/export.h"

class QUIL_EXPORT ControlManager {
  public:
    // The constructor logs a line at level D.
    ControlManager();
    ~ControlManager();
};
