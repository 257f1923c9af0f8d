// One run of quilctl under a hardship, described by data; and what it came to.
#pragma once

#include <limits.h>
#include <signal.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tests/torture/folder.h"
#include "tests/torture/program_run.h"
#include "tools/quilctl/cli.h"

namespace quil::torture {

// System calls about files below a path that fail.
struct Fault {
    int error;
    std::string below{};                      // on the case's disk; "" is all of it
    bool removals = false, readings = false;  // these fail as well
    int first = 1, last = INT_MAX;            // of the calls that the above describes
};

struct Interruption {
    int signal = SIGINT;
    int moment = 0;  // the call before which it comes, counted from the program's first handler
    std::chrono::milliseconds after{0};  // or a time, when there is no moment
};

// Another run on the same board, which starts before a call of this one.
struct Rival {
    tools::Words verb;
    int moment = 1;
    bool waits = false;  // until this one is done; otherwise this one is held until the other ends
};

enum class Demand {
    kAnyCode,      // one of the table
    kExampleCode,  // that of the command's row in testing/verb_cases.h
    kSameCode,     // as without the hardship
    kFailure,      // not 0: a call has failed
    kNotWritten,   // the code for that
    kNoBoard,      // the code for that
    kInterrupted,  // the code for that
    kTruth,        // 0 only when the disk is as without the hardship
};

struct Case {
    std::string name{};
    Demand demand = Demand::kAnyCode;
    bool json = false;
    bool keptBoard = true;          // or one that the run makes for itself
    std::string temporary = "tmp";  // what TMPDIR names on the disk
    tools::Words options{};         // one that begins with '/' is a path on the disk
    Stream in = Stream::kNull, out = Stream::kFile, err = Stream::kFile;
    int columns = 80;  // of a terminal, when it is one
    bool ownSession = false;
    std::optional<Fault> fault{};
    std::optional<Interruption> interruption{};
    Damage damage = Damage::kNone;
    std::string damaged{};  // an entry of the board
    std::optional<Rival> rival{};
    bool slow = false;  // not for a sample
    std::chrono::milliseconds bound{30000};
};

struct Outcome {
    std::vector<std::string> words;
    int exampleCode = 0;
    Ended ended;
    std::string out, err;
    int changes = 0;  // calls that need space on the disk, those of standard output too
    int moments = 0;  // calls since the program's first handler
    int worked = 0;   // of these before it began to remove its own board
    int refused = 0;  // calls that the fault let fail
    bool outRefused = false;
    bool boardTouched = false;
    std::string tree;  // of the disk
    std::vector<std::string> leftovers;
    std::string boardProblem;     // "" when the board is one still
    std::vector<Outcome> rivals;  // none or one
};

// Runs the command in a folder of its own.
Outcome perform(const tools::Words& verb, const Case& one);

// What is wrong with an outcome; `usual` is the one without a hardship.
std::vector<std::string> complaintsAbout(const tools::Words& verb, const Case& one,
                                         const Outcome& outcome, const Outcome& usual);

std::string textOf(const tools::Words& words);

}  // namespace quil::torture
