#include "tools/quilctl/programming/programming_run.h"

#include <stdio.h>

#include <algorithm>
#include <ostream>

#include "tools/quilctl/output/values.h"

namespace quil::tools {
namespace {

// The trace keeps its listeners, so what they use must live as long.
struct Observers {
    ProgrammingWatch watch;
    ProgrammingProgress progress;
    bool isOver = false;

    Observers(const Console& console, const ProgrammingTarget& target)
        : watch(target.port, target.chip), progress(console, watch, target.imageSize) {
        watch.onStep([this](const ProgrammingStep& step, const std::string& said) {
            progress.step(step, said);
        });
    }

    void see(const board::Event& event) {
        if (isOver) return;
        // The log has a line of its own.
        if (event.kind == board::EventKind::kLog) progress.finish();
        watch.see(event);
    }
};

const char* verdictOf(const ProgrammingOutcome& outcome) {
    if (outcome.isWhole()) return "programmed";
    return outcome.isDone ? "INCOMPLETE, unnoticed by the session" : "FAILED";
}

}  // namespace

ProgrammingOutcome runProgramming(BoardSession& session, const Console& console,
                                  const ProgrammingTarget& target,
                                  const std::function<bool()>& flow) {
    board::Board& board = session.board();
    const auto observers = std::make_shared<Observers>(console, target);
    board.trace().onEvent([observers](const board::Event& event) { observers->see(event); });
    const size_t logged = board.logLines().size();
    const board::Nanos start = board.now();
    const bool isDone = flow();
    observers->isOver = true;
    observers->progress.finish();
    const ProgrammingWatch& watch = observers->watch;
    return {isDone,
            watch.attempts(),
            std::min(watch.written(), target.imageSize),
            target.imageSize,
            board.now() - start,
            watch.problem(),
            isDone ? "" : session.lastError(logged)};
}

void addOutcome(Result& result, const ProgrammingOutcome& outcome) {
    char text[128];
    snprintf(text, sizeof(text), "%s: %zu of %zu bytes in %.3f s, %d attempt%s\n",
             verdictOf(outcome), outcome.written, outcome.size, secondsOf(outcome.time),
             outcome.attempts, outcome.attempts == 1 ? "" : "s");
    result.text << text;
    result.json.update({{"done", outcome.isWhole()},
                        {"attempts", outcome.attempts},
                        {"bytes", outcome.written},
                        {"size", outcome.size},
                        {"seconds", secondsOf(outcome.time)}});
    if (outcome.problem) {
        result.text << "step: " << outcome.problem->step
                    << "\nthe MCU said: " << outcome.problem->said << '\n';
        result.json["step"] = outcome.problem->step;
        result.json["said"] = outcome.problem->said;
    }
    if (outcome.lastError.empty()) return;
    result.text << "the library said: " << outcome.lastError << '\n';
    result.json["log"] = outcome.lastError;
}

std::string reasonOf(const ProgrammingOutcome& outcome) {
    if (outcome.problem) return outcome.problem->step + ": " + outcome.problem->said;
    if (!outcome.lastError.empty()) return outcome.lastError;
    return std::to_string(outcome.written) + " of " + std::to_string(outcome.size) +
           " bytes were acknowledged";
}

}  // namespace quil::tools
