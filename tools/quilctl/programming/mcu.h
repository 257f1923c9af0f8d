// What the commands about the MCU share.
#pragma once

#include <string>

#include "tools/quilctl/session/board_session.h"

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

// Parts of "mcu".
void addMcuProgram(CLI::App& mcu, Cli& cli);
void addMcuTask(CLI::App& mcu, Cli& cli);
void addMcuModel(CLI::App& mcu, Cli& cli);

}  // namespace quil::tools
