// Faults by name, which let one start-up fail at a chosen stage.
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

// The board has been asked to update its FPGA at the next bring-up.
bool isUpdateAsked(board::Board& board);

// Breaks a part or the calls to it, or mends them: one of these names. From any thread.
void setBroken(board::Board& board, const std::string& name, bool isBroken);
std::vector<std::string> breakableNames();
inline constexpr char kMcuPart[] = "mcu";  // silent

// Sets the faults until the board's power goes; on a board that stays powered while this lives. The
// destructor names on the error stream those that no call met, because another fault came first.
class BringUpFaults {
  public:
    // Throws a Failure when this product's bring-up, with an update of the FPGA or without, never
    // comes across one of them.
    BringUpFaults(board::Board& board, const std::vector<std::string>& names, bool isUpdate,
                  std::ostream& err);
    ~BringUpFaults();
    BringUpFaults(const BringUpFaults&) = delete;
    BringUpFaults& operator=(const BringUpFaults&) = delete;

  private:
    board::Board& mBoard;
    const std::vector<std::string> mNames;
    const std::shared_ptr<std::vector<std::string>> mUnmet;  // the trace keeps its listeners
    std::ostream& mErr;
};

}  // namespace quil::tools
