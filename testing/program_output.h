// Runs shell commands on the workstation and keeps their standard output.
#pragma once

#include <stdio.h>

#include <array>
#include <string>

namespace quil::tests {

struct CommandRun {
    int status = -1;  // the wait status; -1 when the command did not start
    std::string output;
};

inline CommandRun runCommand(const std::string& command) {
    CommandRun run;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return run;
    std::array<char, 4096> chunk{};
    for (size_t n = 0; (n = fread(chunk.data(), 1, chunk.size(), pipe)) > 0;) {
        run.output.append(chunk.data(), n);
    }
    run.status = pclose(pipe);
    return run;
}

inline std::string outputOf(const std::string& command) { return runCommand(command).output; }

}  // namespace quil::tests
