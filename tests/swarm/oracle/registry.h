// The oracle of the registry: each call has its effect at one moment between its beginning and its
// end, and some order of these moments gives all results and all snapshots.
#pragma once

#include <string>

#include "tests/swarm/oracle/history.h"

namespace quil::swarm {

// What is wrong with registrations, removals and broadcasts, or "". A history for which no order
// was found or excluded within a limit counts as undecided.
std::string problemOfRegistry(const History&, uint64_t* undecided = nullptr);

}  // namespace quil::swarm
