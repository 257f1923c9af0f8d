#include "tests/isp/isp_test.h"

namespace quil::tests {

using testing::ElementsAre;

class IspBootMode : public IspTest {
  protected:
    IspBootMode() { setLogLevel("D"); }
};

TEST_F(IspBootMode, InitRaisesBoot0ThenPulsesResetWithItsPauses) {
    EXPECT_EQ(mcu_isp_init(), 0);
    EXPECT_THAT(done(), ElementsAre(kBoot0High, "pause 100 ms", kResetLow, "pause 300 ms",
                                    kResetHigh, "pause 100 ms"));
    EXPECT_THAT(said(), ElementsAre("D  ==========> [isp init]. \n"));
}

TEST_F(IspBootMode, CloseLowersBoot0ThenPulsesResetWithItsPauses) {
    EXPECT_EQ(mcu_isp_close(), 0);
    EXPECT_THAT(done(), ElementsAre(kBoot0Low, "pause 300 ms", kResetLow, "pause 100 ms",
                                    kResetHigh, "pause 100 ms"));
    EXPECT_THAT(said(), ElementsAre("D  <========== [isp close]. \n"));
}

TEST_F(IspBootMode, EnterHoldsResetBeforeBoot0AndDoesNotPauseAfterTheRelease) {
    EXPECT_EQ(mcu_enter_isp_mode(), 0);
    EXPECT_THAT(done(),
                ElementsAre(kResetLow, "pause 400 ms", kBoot0High, "pause 400 ms", kResetHigh));
    EXPECT_THAT(said(), ElementsAre("D mcu_enter_isp_mode: ==========> [enter isp]. \n"));
}

TEST_F(IspBootMode, ExitLowersBoot0ThenPulsesResetWithShortPauses) {
    EXPECT_EQ(mcu_exit_isp_mode(), 0);
    EXPECT_THAT(done(),
                ElementsAre(kBoot0Low, "pause 20 ms", kResetLow, "pause 20 ms", kResetHigh));
    EXPECT_THAT(said(), ElementsAre("D mcu_exit_isp_mode: <========== [exit isp]. \n"));
}

// Whether a sequence's message is logged before or after its commands.
TEST_F(IspBootMode, EntriesAreAnnouncedFirstAndExitsReportedLast) {
    struct Row {
        int (*sequence)();
        bool isLogFirst;
    };
    for (const Row& row : {Row{mcu_isp_init, true}, Row{mcu_isp_close, false},
                           Row{mcu_enter_isp_mode, true}, Row{mcu_exit_isp_mode, false}}) {
        board.trace().clear();
        row.sequence();
        const auto events = board.trace().events();
        const auto& event = row.isLogFirst ? events.front() : events.back();
        EXPECT_EQ(event.kind, board::EventKind::kLog);
    }
}

TEST_F(IspBootMode, ShellThatCannotRunIsNotNoticed) {
    setLogLevel("E");
    board.faults().add({.call = board::Call::kSystem, .error = ENOMEM, .times = -1});
    EXPECT_EQ(mcu_isp_init(), 0);
    EXPECT_EQ(mcu_isp_close(), 0);
    EXPECT_EQ(mcu_enter_isp_mode(), 0);
    EXPECT_EQ(mcu_exit_isp_mode(), 0);
    EXPECT_THAT(said(), testing::IsEmpty());
    EXPECT_EQ(board.trace().events(board::EventKind::kShell).size(), 12U);
}

TEST_F(IspBootMode, SequencesSayNothingBelowDebugLevel) {
    for (const char* level : {"E", "W", "I"}) {
        setLogLevel(level);
        mcu_isp_init();
        mcu_isp_close();
        mcu_enter_isp_mode();
        mcu_exit_isp_mode();
    }
    EXPECT_THAT(said(), testing::IsEmpty());
}

}  // namespace quil::tests
