// A start-up taken apart into stages, as the library's messages tell them, with board time.
#pragma once

#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "tools/quilctl/session/board_session.h"

namespace quil::tools {

struct BootStage {
    std::string name;
    board::Nanos start, end;
    bool ok;
    std::string said;     // the last error message while it lasted, or what its end had to say
    std::string warning;  // what happened in a stage that is done all the same
    std::string cause, remedy;  // of a stage that failed
};

// Stages of the FPGA's load end with the library's messages; the caller ends the others. They lie
// back to back: each begins where the one before it ended. Each is added to the result as it ends,
// and told as progress where the result is not on view.
//
// The library tells its progress at information level, which this sets for this run.
class BootStages {
  public:
    BootStages(BoardSession& session, const Console& console, Result& result);
    ~BootStages();
    BootStages(const BootStages&) = delete;
    BootStages& operator=(const BootStages&) = delete;

    // Ends the current stage. Without `said` the library's last error message takes its place.
    void end(const std::string& name, bool ok, const std::string& said = "");

    const std::vector<BootStage>& all() const;
    // The last error message since the last stage ended; empty when there was none.
    const std::string& error() const;

  private:
    class Watch;
    const std::shared_ptr<Watch> mWatch;  // the trace keeps its listeners
};

// Says in the trace that a stage has ended now.
void markStage(board::Board& board, const std::string& name, board::Nanos took,
               const std::optional<std::string>& failure);

// Throws a Failure that names the stages that failed.
void throwUnlessAllOk(const std::vector<BootStage>& stages);

}  // namespace quil::tools
