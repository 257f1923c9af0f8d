// What has to hold of a boot in which one call failed.
#pragma once

#include <string>

#include "tests/swarm/faults/flows.h"
#include "tests/swarm/faults/trial.h"

namespace quil::faults {

// Messages, images that were started, violations, board time.
std::string problemOfBoot(const Flow&, const Recording&, const board::Fault&, board::Board&,
                          board::Nanos took);
// Of a function: what it returned.
std::string problemOfResult(const Flow&, const Recording&, const Site&, const Way&, int64_t result);

}  // namespace quil::faults
