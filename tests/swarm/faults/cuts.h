// Power cuts of whole boots: what each leaves, and what the next boot makes of it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "testing/cut_sweep.h"
#include "tests/swarm/faults/flows.h"
#include "tests/swarm/ground.h"
#include "tests/swarm/run.h"

namespace quil::faults {

struct CutFlow {
    std::string name;
    swarm::World world;  // its boots: the one with the cut, and the clean one
};

// Each product with each part.
std::vector<CutFlow> everyCutFlow(Images);

// Cuts in a row, each in the boot behind the one before: "123:before,45:inside:2".
using CutRow = std::vector<board::PowerCut>;
std::string nameOf(const CutRow&);
CutRow cutRowNamed(const std::string& text);  // throws std::runtime_error

class Cuts {
  public:
    // Both as those of swarm::RunOptions.
    std::function<void()> beforeBoot = {};
    std::function<void(const std::string&)> onStandstill = {};

    // What the cuts leave in the flow's first boot. Throws if something is wrong without a cut.
    std::vector<tests::CutState> firstStates(const swarm::World&);
    // The same of the clean boot that starts from these files.
    std::vector<tests::CutState> nextStates(const swarm::World&, const tests::KeptFiles&);
    // What is wrong after the clean boot from there, or "".
    std::string mend(const swarm::World&, const tests::KeptFiles&);
    // What is wrong after runs that really end there, and the clean boot.
    std::string replay(const swarm::World&, const CutRow&);
    // What they leave.
    tests::KeptFiles leftBy(const swarm::World&, const CutRow&);

  private:
    swarm::RunOptions options() const;
    std::vector<tests::CutState> statesOf(const swarm::World&, const tests::KeptFiles* kept);

    swarm::Ground mGround;
};

}  // namespace quil::faults
