// Runs a world to its end in board time, and judges it.
#pragma once

#include <functional>
#include <string>

#include "tests/swarm/ground.h"
#include "tests/swarm/oracle/mailbox.h"
#include "tests/swarm/world.h"

namespace quil::swarm {

struct Tally {
    uint64_t boots = 0, sessions = 0, cuts = 0, calls = 0, undecided = 0;
    MailboxTally answers;
};

struct Outcome {
    std::string finding;     // "": nothing is wrong. Its first word says of which kind it is
    uint64_t traceHash = 0;  // of all boots
    board::OverlayStore::Files kept;  // what the parts hold at the end
    Tally tally;
};

struct RunOptions {
    // What the board's parts hold before the first boot; null: what the world says.
    const board::OverlayStore::Files* kept = nullptr;
    // Gets the board of each boot: as soon as it is powered, and when it has done its work.
    std::function<void(board::Board&)> onPower = {}, onDone = {};
    bool hashesTraces = true;
    // Makes the library one that was just loaded, if the process can.
    std::function<void()> beforeBoot = {};
    // Gets the report of threads that wait for each other, and must not return.
    std::function<void(const std::string&)> onStandstill = {};
    // Gets the trace of each boot.
    std::function<void(const std::string&)> onTrace = {};
};

Outcome run(const World&, Ground&, const RunOptions& = {});

}  // namespace quil::swarm
