// What an engineer breaks for one start-up, to see the stage that fails, by names for the command
// line.
#pragma once

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "board/board.h"

namespace CLI {
class App;
}

namespace quil::tools {

// Adds --fault to a command, whose names end up in `chosen`, and what they mean to its footer.
void addFaultOption(CLI::App& command, std::vector<std::string>& chosen);

// These parts are broken from here on, until the board's power goes. Tells on the error stream,
// when it goes itself, which of them nothing has come across.
class BringUpFaults {
  public:
    BringUpFaults(board::Board& board, const std::vector<std::string>& names, std::ostream& err);
    ~BringUpFaults();
    BringUpFaults(const BringUpFaults&) = delete;
    BringUpFaults& operator=(const BringUpFaults&) = delete;

  private:
    const std::shared_ptr<std::vector<std::string>> mUnmet;  // the trace keeps its listeners
    std::ostream& mErr;
};

}  // namespace quil::tools
