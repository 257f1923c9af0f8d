// What a piece of a test prints.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace quil::tests {

// Each runs `action` and returns what it printed. A throw gives the output back, too: GoogleTest
// ends the program at the next capture otherwise, and the finding would be lost.
template <typename Action>
std::string standardOutputOf(Action action) {
    testing::internal::CaptureStdout();
    try {
        action();
    } catch (...) {
        testing::internal::GetCapturedStdout();
        throw;
    }
    return testing::internal::GetCapturedStdout();
}

template <typename Action>
std::string standardErrorOf(Action action) {
    testing::internal::CaptureStderr();
    try {
        action();
    } catch (...) {
        testing::internal::GetCapturedStderr();
        throw;
    }
    return testing::internal::GetCapturedStderr();
}

}  // namespace quil::tests
