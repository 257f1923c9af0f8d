// The service that a command talks to: a simulated board's own, or the one that a device serves.
#pragma once

#include <quil/hardware/quilservicemanager/1.0/IQuilServiceManager.h>

#include "tools/quilctl/output/values.h"

namespace quil::tools {

// The service is there for as long as this lives.
class ServiceSession {
  public:
    using Service = ::quil::hardware::quilservicemanager::V1_0::IQuilServiceManager;

    ServiceSession() = default;
    virtual ~ServiceSession() = default;
    ServiceSession(const ServiceSession&) = delete;
    ServiceSession& operator=(const ServiceSession&) = delete;

    virtual Service& service() = 0;

    // Told of every request before it goes out, and of what came back.
    virtual void onRequest(bool /*isWrite*/, const Bytes& /*request*/) {}

    virtual void onAnswer(const Bytes& /*answer*/) {}

    // False only where it is certain: a real MCU does not tell.
    virtual bool mcuKnows(uint32_t /*command*/) { return true; }
};

}  // namespace quil::tools
