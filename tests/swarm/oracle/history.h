// What went into a service object and what came out of it, in the order in which it happened.
#pragma once

#include <stdint.h>

#include <chrono>
#include <string>
#include <vector>

namespace quil::swarm {

using Bytes = std::vector<uint8_t>;

enum class Step {
    kRequest,         // set or get is called
    kSent,            // the request's frame is written to the MCU's line
    kAnswer,          // the request's result callback is called
    kAnswered,        // it has returned
    kRequestDone,     // set or get has returned
    kWakeUp,          // wakeUp is called
    kWakeUpDone,      // it has returned
    kRegister,        // `callback`
    kRegisterDone,    // `result`
    kUnregister,      // `callback`
    kUnregisterDone,  // `result`
    kInvoke,          // hwInvoke is called
    kNotify,          // it calls `callback`
    kInvokeDone,      // `result`
    kClockSet         // the real-time clock is set `by` so much
};

struct Record {
    Step step = Step::kRequest;
    uint32_t operation = 0;  // the same for all steps of one call
    std::chrono::nanoseconds at{0};
    Bytes bytes = {};  // the request, the answer, what wakeUp brings
    int callback = 0;
    int result = 0;
    bool isWrite = false;   // set
    bool updating = false;  // firmware is being written
    std::chrono::nanoseconds by{0};
};

using History = std::vector<Record>;

const char* nameOf(Step);
std::string toLine(const Record&);

}  // namespace quil::swarm
