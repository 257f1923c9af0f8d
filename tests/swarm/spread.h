// How long work is spread over processes and machines, and how its results are told.
#pragma once

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/swarm/crew.h"

namespace quil::swarm {

struct Spread {
    Shard shard;
    uint64_t seconds = 0;  // 0: until all is done
    unsigned jobs = 1;
    bool json = false;

    std::chrono::seconds most() const {
        return seconds > 0 ? std::chrono::seconds(seconds) : std::chrono::hours(24 * 365);
    }
};

// --seconds, --shard, --jobs and --json. `piece` is what the work's pieces are called.
void addSpread(CLI::App&, Spread&, const std::string& piece);

// Bytes that are no UTF-8 are replaced.
std::string lineOf(const nlohmann::json&);

// Adds the options of a program, and returns its work.
using Prepare = std::function<std::function<int()>(CLI::App&)>;

// A program of long work: reads its options, gives its processes a directory of their own, so that
// what ends badly leaves nothing, and does the work. 2 after an error.
int runSpread(const char* name, const char* does, int count, char** values, const Prepare&);

}  // namespace quil::swarm
