// The oracle of answers: one slot, in which whoever comes last leaves what the next answer is.
//
// A small model of the service runs along the history. Where the history leaves open what came
// first, the model is in several states at once; an answer that no state gives is a finding.
#pragma once

#include <chrono>
#include <string>

#include "tests/swarm/oracle/history.h"

namespace quil::swarm {

struct MailboxRules {
    bool sendMayFail = false;  // a request's frame may not reach the line
};

struct MailboxTally {
    uint64_t own = 0, empty = 0, stale = 0, updating = 0, selfTests = 0;
};

// What is wrong with the answers of a history, or "".
std::string problemOfAnswers(const History&, const MailboxRules&, MailboxTally* = nullptr);

}  // namespace quil::swarm
