// Runs a case.
#include <stdlib.h>

#include <algorithm>
#include <functional>
#include <future>
#include <stdexcept>

#include "testing/build.h"
#include "testing/files.h"
#include "testing/verb_cases.h"
#include "tests/torture/case.h"

namespace quil::torture {
namespace {

using tools::Words;

constexpr char kQuilctl[] = QUIL_BIN_DIR "/quilctl";
// The library writes this file of the board itself, and takes no notice of a failure.
constexpr char kLibrarysOwn[] = "rootfs/sdcard/self_test_results.txt";
// A command that serves is interrupted after this time.
constexpr std::chrono::milliseconds kServes{300};

tests::VerbCase rowOf(const Words& verb, const Folder& folder) {
    const auto rows = tests::verbCases(folder.disk());
    const auto row = rows.find(textOf(verb));
    if (row == rows.end()) {
        throw std::runtime_error(textOf(verb) + " has no arguments in testing/verb_cases.h");
    }
    return row->second;
}

void append(Words& words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
}

Words commandLine(const Words& verb, const tests::VerbCase& row, const Case& one,
                  const Folder& folder) {
    Words words = {kQuilctl};
    if (one.json) words.emplace_back("--json");
    for (const std::string& option : one.options) {
        words.push_back(option.front() == '/' ? folder.disk().string() + option : option);
    }
    if (one.keptBoard && row.powersBoard) append(words, {"--board", folder.board().string()});
    append(words, verb);
    append(words, row.serving.empty() ? row.arguments : row.serving);
    return words;
}

std::vector<std::string> environmentOf(const std::filesystem::path& temporary) {
    std::vector<std::string> environment = {"TMPDIR=" + temporary.string(), "TERM=xterm",
                                            "LANG=C.UTF-8", "HOME=/nonexistent"};
    for (const char* name : {"PATH", "ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
        const char* value = getenv(name);
        if (value != nullptr) environment.push_back(std::string(name) + "=" + value);
    }
    return environment;
}

bool isBelow(const std::string& path, const std::string& folder) {
    return path == folder || path.rfind(folder + "/", 0) == 0;
}

// What is decided about the calls of a run, and what was seen of them.
class Watch {
  public:
    Watch(const Case& one, const Folder& folder, Outcome& outcome)
        : mCase(one), mFolder(folder), mOutcome(outcome) {}

    Answer decide(pid_t process, const SystemCall& call, const std::function<void()>& rival) {
        mCatches = mCatches || call.effect == Effect::kCatches;
        mCleansUp = mCleansUp ||
                    (call.effect == Effect::kRemoves && isBelow(call.path, mFolder.temporary()));
        const bool isMoment = mCatches && call.effect <= Effect::kRemoves;
        if (isMoment && passesMoment(process, rival)) return {.isHeld = true};
        const bool onDisk =
            isBelow(call.path, mFolder.disk()) && call.path != mFolder.board() / kLibrarysOwn;
        if (onDisk && call.effect == Effect::kAdds) ++mOutcome.changes;
        const bool changes = call.effect == Effect::kAdds || call.effect == Effect::kRemoves;
        if (changes && isBelow(call.path, mFolder.board())) mOutcome.boardTouched = true;
        if (!onDisk || !mCase.fault || !fails(call, *mCase.fault)) return {};
        ++mOutcome.refused;
        if (call.path == mFolder.out()) mOutcome.outRefused = true;
        return {mCase.fault->error};
    }

    bool isToBeSignalled() const { return mCatches && !mSignalled; }
    void setSignalled() { mSignalled = true; }

  private:
    // True when a signal has been sent.
    bool passesMoment(pid_t process, const std::function<void()>& rival) {
        const int moment = ++mOutcome.moments;
        if (!mCleansUp) mOutcome.worked = moment;
        if (mCase.rival && mCase.rival->moment == moment) rival();
        const auto& interruption = mCase.interruption;
        if (mSignalled || !interruption || interruption->moment != moment) return false;
        kill(process, interruption->signal);
        mSignalled = true;
        return true;
    }

    bool fails(const SystemCall& call, const Fault& fault) {
        const bool meant = call.effect == Effect::kAdds ||
                           (call.effect == Effect::kRemoves && fault.removals) ||
                           (call.effect == Effect::kLooks && fault.readings);
        if (!meant || !isBelow(call.path, fault.below.empty() ? mFolder.disk()
                                                              : mFolder.disk() / fault.below)) {
            return false;
        }
        ++mMeant;
        return mMeant >= fault.first && mMeant <= fault.last;
    }

    const Case& mCase;
    const Folder& mFolder;
    Outcome& mOutcome;
    bool mCatches = false, mCleansUp = false, mSignalled = false;
    int mMeant = 0;
};

// A run with its streams in the folder; `suffix` keeps a rival's apart.
Outcome runIn(const Folder& folder, const Words& verb, const Case& one, const char* suffix = "") {
    Outcome outcome;
    const tests::VerbCase row = rowOf(verb, folder);
    outcome.words = commandLine(verb, row, one, folder);
    outcome.exampleCode = row.serving.empty() ? row.code : tools::kOk;
    Start start;
    start.words = outcome.words;
    start.environment = environmentOf(folder.disk() / one.temporary);
    start.folder = folder.disk();
    start.in = one.in;
    start.out = one.out;
    start.err = one.err;
    start.columns = one.columns;
    start.ownSession = one.ownSession;
    start.bound = one.bound;
    start.outFile = folder.out().string() + suffix;
    start.errFile = folder.err().string() + suffix;
    if (!row.serving.empty()) {
        start.signal = SIGINT;
        start.signalAfter = kServes;
    }
    if (one.interruption) {
        // A command that serves makes no call until it is interrupted: the moment may never come.
        const bool inTime = one.interruption->moment == 0 || !row.serving.empty();
        start.signal = inTime ? one.interruption->signal : 0;
        if (one.interruption->moment == 0) start.signalAfter = one.interruption->after;
    }
    Watch watch(one, folder, outcome);
    std::future<Outcome> meanwhile;
    const auto rival = [&] {
        const auto runIt = [&] {
            Case alike{.json = one.json};
            // The owner is held until it gives up.
            if (!one.rival->waits) alike.options = {"--wait", "0.1"};
            return runIn(folder, one.rival->verb, alike, ".rival");
        };
        if (one.rival->waits) {
            meanwhile = std::async(std::launch::async, runIt);
        } else {
            outcome.rivals.push_back(runIt());
        }
    };
    start.signalAllowed = [&watch] { return watch.isToBeSignalled(); };
    start.signalled = [&watch] { watch.setSignalled(); };
    start.policy = [&](pid_t process, const SystemCall& call) {
        return watch.decide(process, call, rival);
    };
    outcome.ended = run(start);
    if (meanwhile.valid()) outcome.rivals.push_back(meanwhile.get());
    outcome.out = tests::contentOf(start.outFile);
    outcome.err = tests::contentOf(start.errFile);
    return outcome;
}

// What the program itself says about the board; "" when nothing is wrong.
std::string answerOf(const char* verb, const Folder& folder) {
    Start start;
    start.words = {kQuilctl, "board", verb, folder.board().string()};
    start.environment = environmentOf(folder.temporary());
    start.folder = folder.disk();
    start.outFile = folder.err().string() + ".answer";
    start.errFile = start.outFile.string() + ".err";
    const Ended ended = run(start);
    const std::string answer = std::string("board ") + verb + ": " +
                               tests::contentOf(start.outFile) + tests::contentOf(start.errFile);
    if (ended.signal != 0 || ended.timedOut) throw std::runtime_error(answer + "did not end well");
    return ended.code == tools::kOk ? "" : answer;
}

// A board that was sound has to be sound afterwards. One that was damaged before the run has to be
// sound after a repair that succeeds, and must not be called sound after one that fails.
std::string boardProblemIn(const Folder& folder, Damage damage) {
    const bool wasSound = damage == Damage::kNone || damage == Damage::kForbidden;
    const bool isSound = wasSound || answerOf("repair", folder).empty();
    std::string problem = answerOf("check", folder);
    if (isSound) return problem;
    return problem.empty() ? "board repair gives up on a board that board check finds good" : "";
}

}  // namespace

std::string textOf(const Words& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

Outcome perform(const Words& verb, const Case& one) {
    const Folder folder;
    folder.damage(one.damaged, one.damage);
    Outcome outcome = runIn(folder, verb, one);
    outcome.tree = folder.tree();
    outcome.leftovers = folder.leftovers();
    if (outcome.boardTouched || one.damage != Damage::kNone) {
        outcome.boardProblem = boardProblemIn(folder, one.damage);
    }
    return outcome;
}

}  // namespace quil::torture
