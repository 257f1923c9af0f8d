#include "tests/swarm/oracle/history.h"

#include "board/core/bytes.h"

namespace quil::swarm {

const char* nameOf(Step step) {
    switch (step) {
        case Step::kRequest:
            return "request";
        case Step::kSent:
            return "sent to the MCU";
        case Step::kAnswer:
            return "answer";
        case Step::kAnswered:
            return "answer taken";
        case Step::kRequestDone:
            return "request done";
        case Step::kWakeUp:
            return "wakeUp";
        case Step::kWakeUpDone:
            return "wakeUp done";
        case Step::kRegister:
            return "register";
        case Step::kRegisterDone:
            return "register done";
        case Step::kUnregister:
            return "unregister";
        case Step::kUnregisterDone:
            return "unregister done";
        case Step::kInvoke:
            return "hwInvoke";
        case Step::kNotify:
            return "hwNotify";
        case Step::kInvokeDone:
            return "hwInvoke done";
        case Step::kClockSet:
            return "real-time clock set";
    }
    return "";
}

std::string toLine(const Record& record) {
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(record.at).count();
    std::string line = std::to_string(micros) + " us, call " + std::to_string(record.operation);
    line += std::string(": ") + (record.isWrite ? "set " : "") + nameOf(record.step);
    if (record.callback != 0) line += ", callback " + std::to_string(record.callback);
    if (record.result != 0) line += ", result " + std::to_string(record.result);
    if (record.by != std::chrono::nanoseconds(0)) {
        line += " by " + std::to_string(record.by.count()) + " ns";
    }
    if (!record.bytes.empty()) line += " [" + board::hexOf(record.bytes) + "]";
    return line + (record.updating ? " (updating)" : "");
}

}  // namespace quil::swarm
