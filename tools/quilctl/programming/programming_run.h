// One run of a flow that programs the MCU: shown while it goes on, and told at its end.
#pragma once

#include <functional>
#include <memory>

#include "tools/quilctl/programming/programming_progress.h"
#include "tools/quilctl/programming/programming_watch.h"
#include "tools/quilctl/session/board_session.h"

namespace quil::tools {

struct ProgrammingTarget {
    std::string port;
    std::string chip;
    size_t imageSize = 0;  // bytes
};

struct ProgrammingOutcome {
    bool isDone = false;  // as the library has it: it examines few of the MCU's answers
    int attempts = 0;
    size_t written = 0, size = 0;  // bytes that the MCU acknowledged in the latest attempt, of all
    board::Nanos time{0};
    std::optional<ProgrammingWatch::Problem> problem = {};
    std::string lastError = {};  // of the library's log

    bool isWhole() const { return isDone && written == size; }
};

// Runs `flow`, which says whether it did its work.
ProgrammingOutcome runProgramming(BoardSession& session, const Console& console,
                                  const ProgrammingTarget& target,
                                  const std::function<bool()>& flow);

// What was written, the time, the attempts; on failure the step and what the MCU said to it.
void addOutcome(Result& result, const Screen& screen, const ProgrammingOutcome& outcome);

// Why it is not whole, in one line.
std::string reasonOf(const ProgrammingOutcome& outcome);
std::string remedyOf(const ProgrammingOutcome& outcome);

}  // namespace quil::tools
