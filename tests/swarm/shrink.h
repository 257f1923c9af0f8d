// Makes a world smaller for as long as the same is wrong in it.
#pragma once

#include <functional>
#include <string>

#include "tests/swarm/world.h"

namespace quil::swarm {

struct Shrunk {
    World world;
    std::string finding;
    unsigned tries = 0;
};

// Of which kind a finding is: its first word.
std::string kindOf(const std::string& finding);

// `findingOf` runs a world. What is dropped: boots, sessions, clients, operations, faults, cuts,
// chances, draws of the schedule, and everything that differs from a plain board.
Shrunk shrink(const World&, const std::string& finding, unsigned triesMost,
              const std::function<std::string(const World&)>& findingOf);

}  // namespace quil::swarm
