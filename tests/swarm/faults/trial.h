// Runs a flow with one failure, and judges it.
#pragma once

#include <stdint.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tests/swarm/faults/flows.h"
#include "tests/swarm/ground.h"
#include "tests/swarm/run.h"

namespace quil::faults {

// A run without a failure: what can fail in it, how long it takes, what it returns.
struct Recording {
    std::vector<Site> sites;
    board::Nanos took{0};
    int64_t result = 0;
    std::string finding;  // "": nothing is wrong
};

class Trials {
  public:
    // Both as those of swarm::RunOptions.
    std::function<void()> beforeBoot = {};
    std::function<void(const std::string&)> onStandstill = {};

    Recording record(const Flow&);
    // What is wrong, or "".
    std::string run(const Flow&, const Recording&, const Site&, const Way&);

  private:
    class FunctionRun;

    void recordInto(board::Board&, Recording&) const;
    swarm::RunOptions options() const;
    std::string runWorld(const Flow&, const Recording&, const board::Fault&);
    std::string runFunction(const Flow&, const Recording&, const Site&, const Way&);
    std::string mend(const Flow&, const board::OverlayStore::Files& kept);

    swarm::Ground mGround;
    // What boots have mended: a board that starts from the same files does the same.
    std::set<std::pair<std::string, board::OverlayStore::Files>> mMended;
};

}  // namespace quil::faults
