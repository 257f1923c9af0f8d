// Every command under every condition.
#pragma once

#include <stdint.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace quil::torture {

struct Choice {
    std::string condition, verb;  // "": all
    int number = 0;               // of a case of one command under one condition; 0: all
    bool sample = false;          // one case of each eighth pair
    uint64_t seed = 1;            // chooses the sample
    unsigned shard = 0, shards = 1;
    unsigned jobs = 1;
};

struct Finding {
    std::string condition, verb, caseName;
    int number = 0;
    std::string complaint;  // "" when nothing is wrong
    std::string details;    // the command line and what it printed
};

struct Row {
    std::string condition;
    int cases = 0, failures = 0;
    std::chrono::milliseconds took{0};
};

// A row for each condition. `onCase` hears of each case as it ends, one at a time.
std::vector<Row> torture(const Choice& choice, const std::function<void(const Finding&)>& onCase);

// The command that runs the case alone.
std::string replayOf(const Finding& finding);

}  // namespace quil::torture
