// What the board refuses is counted by kind and kept within bounds.
#include "board/core/violations.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using quil::board::Nanos;
using quil::board::Violations;
using testing::ElementsAre;
using testing::SizeIs;

TEST(BoardViolations, FirstOfAKindAreKeptWithTheirTimeAndTheRestIsCounted) {
    Violations violations;
    for (int i = 0; i < 1000; ++i)
        violations.add(Nanos(i), "uart: no command 0x" + std::to_string(i));
    EXPECT_EQ(violations.total(), 1000U);
    ASSERT_THAT(violations.kept(), SizeIs(Violations::kKeptOfAKind));
    EXPECT_EQ(violations.kept().back().at, Nanos(15));
    EXPECT_EQ(violations.kept().back().text, "uart: no command 0x15");
    EXPECT_EQ(violations.texts().back(), "uart: no command #: 984 more");
}

TEST(BoardViolations, TextsOfOneKindDifferInNumbersAndBytesOnly) {
    Violations violations;
    for (int i = 0; i < 16; ++i)
        violations.add(Nanos(0), "fpga: a transaction: 55 bb 0" + std::to_string(i));
    EXPECT_FALSE(violations.add(Nanos(0), "fpga: a transaction: ff ff ff ff ab"));
    EXPECT_TRUE(violations.add(Nanos(0), "fpga: another transaction: ff"));
}

TEST(BoardViolations, KindsBeyondTheLimitCountAsOne) {
    Violations violations;
    for (size_t i = 0; i < 1000; ++i) violations.add(Nanos(0), std::string(i + 1, 'x'));
    EXPECT_EQ(violations.total(), 1000U);
    EXPECT_THAT(violations.kept(), SizeIs(Violations::kKinds - 1 + Violations::kKeptOfAKind));
    EXPECT_THAT(violations.texts().back(), "others: 921 more");
}

TEST(BoardViolations, FewAreTheirTextsInTheirOrder) {
    Violations violations;
    violations.add(Nanos(1), "a: b");
    violations.add(Nanos(2), "c: d");
    EXPECT_THAT(violations.texts(), ElementsAre("a: b", "c: d"));
}

}  // namespace
