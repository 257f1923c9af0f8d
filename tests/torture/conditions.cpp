#include "tests/torture/conditions.h"

#include <errno.h>
#include <string.h>

#include <algorithm>

namespace quil::torture {
namespace {

using std::chrono::milliseconds;
using tools::Words;
using Cases = std::vector<Case>;

// With a board of the run's own as well, when it powers one.
std::vector<bool> boardsOf(const Subject& subject) {
    if (subject.powersBoard) return {true, false};
    return {true};
}

std::string boardText(bool kept) { return kept ? "" : "own board, "; }

Cases withoutHardship(const Subject& subject) {
    Cases cases;
    for (const bool kept : boardsOf(subject)) {
        for (const bool json : {false, true}) {
            cases.push_back({.name = boardText(kept) + (json ? "as JSON" : "as text"),
                             .demand = Demand::kExampleCode,
                             .json = json,
                             .keptBoard = kept});
        }
    }
    return cases;
}

// Each write in turn, and all that follow.
void addFullDisks(const Subject& subject, bool kept, bool json, Cases& cases) {
    const Case like{.json = json, .keptBoard = kept};
    const int changes = subject.usual(like).changes;
    for (int change = 1; change <= changes; ++change) {
        Case one = like;
        // In every second case the disk is full for one write only.
        const bool alone = kept && change % 2 == static_cast<int>(json);
        one.name = boardText(kept) + "write " + std::to_string(change) + " of " +
                   std::to_string(changes) + (alone ? " fails" : " and all after it fail");
        one.demand = Demand::kFailure;
        one.fault = Fault{.error = ENOSPC, .first = change, .last = alone ? change : INT_MAX};
        cases.push_back(one);
    }
}

Cases fullDisk(const Subject& subject) {
    Cases cases;
    addFullDisks(subject, true, false, cases);
    addFullDisks(subject, true, true, cases);
    if (subject.powersBoard) addFullDisks(subject, false, true, cases);
    return cases;
}

Cases readOnlyDirectory(const Subject& subject) {
    Cases cases;
    for (const bool kept : boardsOf(subject)) {
        for (const char* below : {"board", "tmp"}) {
            for (const int error : {EROFS, EACCES}) {
                cases.push_back({.name = boardText(kept) + below + ": " + strerrorname_np(error),
                                 .demand = Demand::kTruth,
                                 .json = error == EACCES,
                                 .keptBoard = kept,
                                 .fault = Fault{.error = error, .below = below, .removals = true}});
            }
        }
    }
    return cases;
}

Cases unwritableTrace(const Subject& subject) {
    Cases cases;
    const Demand demand = subject.powersBoard ? Demand::kNotWritten : Demand::kAnyCode;
    for (const std::string ending : {".txt", ".vcd", ".json", ".pftrace"}) {
        for (const std::string folder : {"/none", "/screen.img"}) {
            const std::string file = std::string(folder).append("/trace").append(ending);
            cases.push_back({.name = file,
                             .demand = demand,
                             .json = ending == ".vcd",
                             .options = {"--trace", file}});
        }
        for (const int first : {1, 2}) {
            cases.push_back(
                {.name = "trace" + ending + ", write " + std::to_string(first) + " and after",
                 .demand = demand,
                 .json = ending != ".vcd",
                 .options = {"--trace", "/trace" + ending},
                 .fault = Fault{.error = first == 1 ? EACCES : ENOSPC,
                                .below = "trace" + ending,
                                .first = first}});
        }
    }
    return cases;
}

Cases closedOutput(const Subject& subject) {
    Cases cases;
    const Demand demand = subject.serves ? Demand::kAnyCode : Demand::kNotWritten;
    const std::pair<Stream, const char*> kinds[] = {
        {Stream::kClosed, "closed"}, {Stream::kFull, "/dev/full"}, {Stream::kHungUp, "hung up"}};
    for (const auto& [out, name] : kinds) {
        for (const bool json : {false, true}) {
            cases.push_back({.name = name, .demand = demand, .json = json, .out = out});
            cases.push_back({.name = std::string(name) + ", errors too",
                             .demand = demand,
                             .json = json,
                             .out = out,
                             .err = out});
            cases.push_back({.name = std::string(name) + ", errors only",
                             .demand = Demand::kSameCode,
                             .json = json,
                             .err = out});
        }
    }
    cases.push_back({.name = "closed, input and errors too",
                     .demand = demand,
                     .in = Stream::kClosed,
                     .out = Stream::kClosed,
                     .err = Stream::kClosed});
    return cases;
}

// Nowhere to put a board that a run makes for itself.
Cases noTemporaryFolder(const Subject& subject) {
    Cases cases;
    for (const bool kept : boardsOf(subject)) {
        for (const char* name : {"none", "screen.img"}) {
            cases.push_back({.name = boardText(kept) + "TMPDIR is " + name,
                             .demand = kept ? Demand::kAnyCode : Demand::kNoBoard,
                             .json = cases.size() % 2 == 1,
                             .keptBoard = kept,
                             .temporary = name});
        }
    }
    return cases;
}

constexpr int kMoments = 20;
constexpr int kTimes = 5;

// A signal in the first half of what the command does on a board has to stop it. Later the command
// may be through with its work, and end as without the signal.
Demand demandAt(const Subject& subject, const Outcome& usual, int moment) {
    const bool early = moment <= usual.worked / 2;
    return subject.powersBoard && early ? Demand::kInterrupted : Demand::kAnyCode;
}

// Signals that come after a time, and so between two calls as well.
void addTimes(const Subject& subject, int signal, Cases& cases) {
    for (int i = 1; i <= kTimes; ++i) {
        Case one{.name = "in time " + std::to_string(i), .json = i % 2 == 0, .slow = true};
        one.interruption = Interruption{.signal = signal,
                                        .after = subject.usual(one).ended.took * i / (kTimes + 1)};
        cases.push_back(one);
    }
}

Cases interrupted(const Subject& subject, int signal) {
    Cases cases;
    for (int i = 1; i <= kMoments; ++i) {
        Case one{.json = i % 2 == 0, .keptBoard = !subject.powersBoard || i % 4 < 2};
        const Outcome& usual = subject.usual(one);
        const int moments = usual.moments;
        const int moment = std::max(1 + (moments - 1) * (i - 1) / (kMoments - 1), 1);
        one.name = boardText(one.keptBoard) + "call " + std::to_string(moment) + " of " +
                   std::to_string(moments);
        one.demand = demandAt(subject, usual, moment);
        one.interruption = Interruption{.signal = signal, .moment = moment};
        cases.push_back(one);
    }
    addTimes(subject, signal, cases);
    return cases;
}

Cases interrupt(const Subject& subject) { return interrupted(subject, SIGINT); }
Cases terminate(const Subject& subject) { return interrupted(subject, SIGTERM); }

Cases twoAtOnce(const Subject& subject) {
    Cases cases;
    if (!subject.powersBoard) return cases;
    const auto add = [&](const Words& other) {
        Case one{.json = cases.size() % 2 == 1};
        const auto sixth = static_cast<int>(cases.size() % 5) + 1;
        const int moment = std::max(subject.usual(one).moments * sixth / 6, 1);
        const bool waits = cases.size() % 3 == 2;
        one.name = "with " + textOf(other) + " from call " + std::to_string(moment) +
                   (waits ? " on" : ", held");
        one.rival = Rival{other, moment, waits};
        cases.push_back(one);
    };
    for (int i = 0; i < 5; ++i) add(subject.verb);
    for (const Words& other : subject.others) add(other);
    return cases;
}

Cases realTime(const Subject& subject) {
    Cases cases;
    if (!subject.powersBoard && !subject.serves) return cases;
    for (const int after : {250, 1000, 3000}) {
        cases.push_back({.name = std::to_string(after) + " ms",
                         .json = after == 1000,
                         .options = {"--realtime"},
                         .interruption = Interruption{.after = milliseconds(after)},
                         .slow = after > 250});
    }
    cases.push_back({.name = "to its end",
                     .demand = Demand::kSameCode,
                     .options = {"--realtime"},
                     .slow = true,
                     .bound = milliseconds(180000)});
    return cases;
}

struct DamageRow {
    Damage kind;
    const char* name;
    bool ofFolders;  // it can befall a folder, too
};
constexpr DamageRow kDamages[] = {
    {Damage::kMissing, "missing", true},     {Damage::kEmpty, "an empty file", true},
    {Damage::kGarbage, "garbage", false},    {Damage::kTruncated, "truncated", false},
    {Damage::kDirectory, "a folder", false}, {Damage::kLoop, "a link to itself", true},
    {Damage::kForbidden, "forbidden", true},
};

Cases damagedBoard(const Subject& subject) {
    Cases cases;
    if (!subject.meetsBoard()) return cases;
    for (const auto& [entry, isFolder] : Folder::boardEntries()) {
        for (const DamageRow& row : kDamages) {
            if (isFolder && !row.ofFolders) continue;
            Case one{.name = entry + ": " + row.name,
                     .json = cases.size() % 2 == 1,
                     .damage = row.kind,
                     .damaged = entry};
            if (row.kind == Damage::kForbidden) {
                one.fault = Fault{
                    .error = EACCES, .below = "board/" + entry, .removals = true, .readings = true};
            }
            cases.push_back(one);
        }
    }
    return cases;
}

Cases onTerminal(const Subject& /*subject*/, int columns) {
    return {{.name = "terminal",
             .demand = Demand::kSameCode,
             .in = Stream::kTerminal,
             .out = Stream::kTerminal,
             .err = Stream::kTerminal,
             .columns = columns}};
}

Cases columns80(const Subject& subject) { return onTerminal(subject, 80); }
Cases columns40(const Subject& subject) { return onTerminal(subject, 40); }

Cases noTerminal(const Subject& /*subject*/) {
    Cases cases;
    for (const Stream in : {Stream::kNull, Stream::kClosed}) {
        for (const bool json : {false, true}) {
            cases.push_back({.name = in == Stream::kNull ? "input empty" : "input closed",
                             .demand = Demand::kSameCode,
                             .json = json,
                             .in = in,
                             .ownSession = true});
        }
    }
    return cases;
}

}  // namespace

const std::vector<Condition>& conditions() {
    static const std::vector<Condition> kConditions = {
        {"no-hardship", withoutHardship},
        {"full-disk", fullDisk},
        {"read-only-directory", readOnlyDirectory},
        {"unwritable-trace", unwritableTrace},
        {"closed-output", closedOutput},
        {"no-temporary-folder", noTemporaryFolder},
        {"interrupt", interrupt},
        {"terminate", terminate},
        {"two-at-once", twoAtOnce},
        {"real-time", realTime},
        {"damaged-board", damagedBoard},
        {"80-columns", columns80},
        {"40-columns", columns40},
        {"no-terminal", noTerminal},
    };
    return kConditions;
}

}  // namespace quil::torture
