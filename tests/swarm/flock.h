// Many worlds, in several processes, and one world in a process of its own.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/swarm/crew.h"
#include "tests/swarm/run.h"

namespace quil::swarm {

// Of `of` shares of the seeds from `first` on, the one with this number.
struct Seeds {
    uint64_t first = 1, count = 0;  // 0: without end
    Shard shard;
    uint64_t at(uint64_t index) const { return first + shard.at(index); }
    uint64_t size() const { return shard.sizeOf(count); }
};

struct Found {
    uint64_t seed;
    std::string finding;
};

// The world in a process of its own.
Outcome runApart(const World&);

// Runs them in so many processes, and calls `ended` with each, until they are through or the time
// is over. Returns how many there were.
uint64_t runAll(const Seeds&, unsigned processes, std::chrono::seconds most,
                const std::function<void(uint64_t seed, const Outcome&)>& ended);

}  // namespace quil::swarm
