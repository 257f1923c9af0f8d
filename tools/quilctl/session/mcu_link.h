#pragma once

#include <string>

namespace quil::tools {

// The MCU link as the hosting component opens it, without the service: nobody else reads from it.
class McuLink {
  public:
    McuLink();  // throws std::runtime_error when it does not come up
    ~McuLink();
    McuLink(const McuLink&) = delete;
    McuLink& operator=(const McuLink&) = delete;

    // What the running application answers; empty when it does not.
    std::string version() const;
};

}  // namespace quil::tools
