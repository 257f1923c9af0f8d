// What the boot loader answered in a session around one command, in words. It reads the bytes of
// the serial line in the trace, as ST's application note AN3155 lays them out.
#pragma once

#include <string>
#include <vector>

#include "board/core/trace.h"
#include "tools/quilctl/output/values.h"

namespace quil::tools {

struct TaskAnswer {
    std::string asked;  // "read", "erase", ..
    bool isGood;
    std::string said;  // "8192 bytes from 0x08000000"
    size_t bytes = 0;  // read or written
};

class TaskAnswers {
  public:
    explicit TaskAnswers(std::string port) : mPort(std::move(port)) {}
    void see(const board::Event& event);
    std::vector<TaskAnswer> decoded() const;

  private:
    struct Exchange {
        Bytes sent, answer;
    };
    const std::string mPort;
    std::vector<Exchange> mExchanges;
};

}  // namespace quil::tools
