#include "tools/quilctl/programming/programming_run.h"

#include <stdio.h>

#include <algorithm>
#include <array>
#include <ostream>
#include <string_view>

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

struct AdviceRow {
    std::string_view step;  // the beginning of its name
    const char* remedy;
};
constexpr std::array<AdviceRow, 4> kAdvice = {{
    {"open ", "look at the port: mcu_uart_path in product.ini, or --port"},
    {"synchronise",
     "see that the MCU is in its boot loader (BOOT0 high through a reset), and that "
     "port and part (--chip, mcu_serial) are the right ones"},
    {"handshake",
     "see that the MCU is in its boot loader (BOOT0 high through a reset), and that "
     "port and part (--chip, mcu_serial) are the right ones"},
    {"erase",
     "see that the image is not larger than the part's flash and the part is not protected; "
     "then program again"},
}};
constexpr char kAgain[] =
    "the flash holds a part of the image, which must not be started: program again";

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

void addOutcome(Result& result, const Screen& screen, const ProgrammingOutcome& outcome) {
    char text[128];
    snprintf(text, sizeof(text), ": %zu of %zu bytes in %.3f s, %d attempt%s\n", outcome.written,
             outcome.size, secondsOf(outcome.time), outcome.attempts,
             outcome.attempts == 1 ? "" : "s");
    const bool isWhole = outcome.isWhole();
    result.text << (isWhole ? "programmed"
                            : styled(screen, Style::kBad, outcome.isDone ? "INCOMPLETE" : "FAILED"))
                << text;
    result.json.update({{"done", isWhole},
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
    if (!outcome.lastError.empty()) {
        result.text << "the library said: " << outcome.lastError << '\n';
        result.json["log"] = outcome.lastError;
    }
    if (isWhole) return;
    result.text << "cause: " << reasonOf(outcome) << '\n';
    result.json["cause"] = reasonOf(outcome);
    result.json["remedy"] = remedyOf(outcome);
}

std::string reasonOf(const ProgrammingOutcome& outcome) {
    if (outcome.isDone) {
        return "the session examines few of the MCU's answers; to " +
               (outcome.problem ? "'" + outcome.problem->step + "' it was " + outcome.problem->said
                                : std::string("the last blocks none came"));
    }
    if (outcome.problem) return outcome.problem->step + ": " + outcome.problem->said;
    if (!outcome.lastError.empty()) return outcome.lastError;
    return std::to_string(outcome.written) + " of " + std::to_string(outcome.size) +
           " bytes were acknowledged";
}

std::string remedyOf(const ProgrammingOutcome& outcome) {
    if (outcome.attempts == 0) {
        return "nothing was sent: see that the image is there (mcu_fw_path), and quilctl config "
               "check";
    }
    for (const AdviceRow& row : kAdvice) {
        if (outcome.problem && outcome.problem->step.rfind(row.step, 0) == 0) return row.remedy;
    }
    return kAgain;
}

}  // namespace quil::tools
