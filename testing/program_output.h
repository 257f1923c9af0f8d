// What another program of the workstation says: a shell command's standard output.
#pragma once

#include <stdio.h>

#include <array>
#include <memory>
#include <string>

namespace quil::tests {

inline std::string outputOf(const std::string& command) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    std::string output;
    std::array<char, 4096> chunk{};
    while (pipe && fgets(chunk.data(), chunk.size(), pipe.get()) != nullptr) output += chunk.data();
    return output;
}

}  // namespace quil::tests
