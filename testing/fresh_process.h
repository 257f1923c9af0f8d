// Death tests whose body starts in a process of its own.
#pragma once

#include <gtest/gtest.h>

namespace quil::tests {

// An emulated program cannot start itself anew: there the body runs in a fork. Suites with
// DeathTest in their names are run first, so that a fork of theirs is as fresh.
inline void dieInAFreshProcess() {
#ifdef __arm__
    GTEST_FLAG_SET(death_test_style, "fast");
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
#endif
}

// Tests of how a process ends.
class ProcessEnd : public testing::Test {
  protected:
    void SetUp() override { dieInAFreshProcess(); }
};

}  // namespace quil::tests
