// Death tests whose body runs in a newly started process.
#pragma once

#include <gtest/gtest.h>

namespace quil::tests {

// Under emulation a program cannot start itself again, so the body runs in a fork. GoogleTest runs
// suites with DeathTest in their names first, when the state to fork from is still fresh.
inline void dieInAFreshProcess() {
#ifdef __arm__
    GTEST_FLAG_SET(death_test_style, "fast");
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
#endif
}

// For tests of how a process ends.
class ProcessEnd : public testing::Test {
  protected:
    void SetUp() override { dieInAFreshProcess(); }
};

}  // namespace quil::tests
