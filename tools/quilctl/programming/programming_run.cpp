#include "tools/quilctl/programming/programming_run.h"

#include <android/log.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <ostream>

#include "tools/quilctl/output/values.h"

namespace quil::tools {
namespace {

// The trace keeps its listeners for good: what they use lives as long.
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

std::string lastErrorOf(const board::Board& board, size_t since) {
    const auto lines = board.logLines();
    std::string last;
    for (size_t i = since; i < lines.size(); ++i) {
        if (lines[i].priority == ANDROID_LOG_ERROR) last = lines[i].text;
    }
    while (!last.empty() && last.back() == '\n') last.pop_back();
    return last;
}

const char* verdictOf(const ProgrammingOutcome& outcome) {
    if (outcome.isWhole()) return "programmed";
    return outcome.isDone ? "INCOMPLETE, unnoticed by the session" : "FAILED";
}

void printJson(std::ostream& out, const ProgrammingOutcome& outcome,
               const std::map<std::string, std::string>& more) {
    nlohmann::json json{{"done", outcome.isWhole()},
                        {"attempts", outcome.attempts},
                        {"bytes", outcome.written},
                        {"seconds", secondsOf(outcome.time)}};
    if (!outcome.isDone) json["log"] = outcome.lastError;
    if (outcome.problem) {
        json["step"] = outcome.problem->step;
        json["said"] = outcome.problem->said;
    }
    json.update(nlohmann::json(more));
    out << json.dump() << '\n';
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
            isDone ? "" : lastErrorOf(board, logged)};
}

void printOutcome(const Cli& cli, const ProgrammingOutcome& outcome,
                  const std::map<std::string, std::string>& more) {
    std::ostream& out = cli.console.out;
    if (cli.options.json) return printJson(out, outcome, more);
    char text[128];
    std::snprintf(text, sizeof text, "%s: %zu of %zu bytes in %.3f s, %d attempt%s\n",
                  verdictOf(outcome), outcome.written, outcome.size, secondsOf(outcome.time),
                  outcome.attempts, outcome.attempts == 1 ? "" : "s");
    out << text;
    if (outcome.problem) {
        out << "step: " << outcome.problem->step << "\nthe MCU said: " << outcome.problem->said
            << '\n';
    }
    if (!outcome.lastError.empty()) out << "the library said: " << outcome.lastError << '\n';
}

}  // namespace quil::tools
