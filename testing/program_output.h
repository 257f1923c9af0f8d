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

// A command that does not end is ended, with the status of exit code 124.
inline CommandRun runCommand(const std::string& command) {
    std::string limited = "timeout --kill-after=10 300 sh -c '";
    for (const char character : command) {
        limited += character == '\'' ? std::string("'\\''") : std::string(1, character);
    }
    CommandRun run;
    FILE* pipe = popen((limited + "'").c_str(), "r");
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
