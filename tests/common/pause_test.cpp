#include "common/pause.h"

#include <gtest/gtest.h>

#include "board/board.h"

namespace quil::tests {
namespace {

TEST(Pause, GoesOnAfterEachSignalForWhatIsLeftOfIt) {
    board::Board board(board::Product::kHeron, {.seed = 1, .chances = {.interruptions = 500'000}});
    const board::Nanos start = board.now();
    for (int i = 0; i < 20; ++i) common::pauseMs(200);
    EXPECT_GE(board.now() - start, std::chrono::seconds(4));
    const auto interrupted = board.trace().events(board::EventKind::kFault).size();
    EXPECT_GT(interrupted, 5U);
}

}  // namespace
}  // namespace quil::tests
