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
    bool sample = false;          // one case of each third of the pairs
    uint64_t seed = 1;            // chooses the sample
    unsigned shard = 0, shards = 1;
    unsigned jobs = 1;
};

struct Failure {
    std::string condition, verb, caseName;
    int number = 0;
    std::string complaint;
    std::string details;  // the command line and what it printed
};

struct Row {
    std::string condition;
    int cases = 0, failures = 0;
    std::chrono::milliseconds took{0};
};

struct Report {
    std::vector<Row> rows;  // one for each condition
    std::vector<Failure> failures;
};

// `onFailure` hears of each failure when it is found, one at a time.
Report torture(const Choice& choice, const std::function<void(const Failure&)>& onFailure);

// The command that runs the case alone.
std::string replayOf(const Failure& failure);

}  // namespace quil::torture
