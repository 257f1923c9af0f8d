// The oracle accepts what a service may do, and rejects what it may not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/swarm/oracle/log_texts.h"
#include "tests/swarm/oracle/mailbox.h"
#include "tests/swarm/oracle/registry.h"
#include "tests/swarm/shrink.h"

namespace quil::swarm {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using testing::HasSubstr;
using testing::IsEmpty;

const Bytes kMcuRequest = {0x02, 0x10, 0, 0, 0, 0, 0, 0};
const Bytes kPowerMode = {0xF0, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};
const Bytes kSelfTest = {0xF4, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};

// Writes a history by hand: one line for each step.
class Writer {
  public:
    Writer& at(nanoseconds time) {
        mNow = time;
        return *this;
    }
    Writer& updating(bool is) {
        mUpdating = is;
        return *this;
    }
    Writer& step(Step step, uint32_t operation, Bytes bytes = {}) {
        return add({.step = step, .operation = operation, .bytes = std::move(bytes)});
    }
    Writer& registry(Step step, uint32_t operation, int callback, int result = 0) {
        return add({.step = step, .operation = operation, .callback = callback, .result = result});
    }
    Writer& clockSet(nanoseconds by) { return add({.step = Step::kClockSet, .by = by}); }
    // A whole call with nothing in between.
    Writer& wakeUp(uint32_t operation, const Bytes& bytes) {
        return step(Step::kWakeUp, operation, bytes).step(Step::kWakeUpDone, operation);
    }
    Writer& answered(uint32_t operation, const Bytes& bytes) {
        return step(Step::kAnswer, operation, bytes)
            .step(Step::kAnswered, operation)
            .step(Step::kRequestDone, operation);
    }
    Writer& registered(uint32_t operation, int callback) {
        return registry(Step::kRegister, operation, callback)
            .registry(Step::kRegisterDone, operation, 0);
    }
    std::string problem(const MailboxRules& rules = {}) const {
        return problemOfAnswers(history, rules);
    }

    History history;

  private:
    Writer& add(Record record) {
        record.at = mNow;
        record.updating = mUpdating;
        history.push_back(std::move(record));
        return *this;
    }
    nanoseconds mNow{0};
    bool mUpdating = false;
};

Writer aRequestThatIsSent() {
    Writer writer;
    return writer.step(Step::kRequest, 1, kMcuRequest).step(Step::kSent, 1);
}

TEST(SwarmMailbox, AnswerThatComesDuringTheWaitIsTheRequestsOwn) {
    const auto history = aRequestThatIsSent().at(milliseconds(7)).wakeUp(2, {7}).answered(1, {7});
    EXPECT_EQ(history.problem(), "");
}

TEST(SwarmMailbox, RequestThatIsAnsweredWithWhatNobodyBroughtIsRejected) {
    const auto history = aRequestThatIsSent().at(milliseconds(7)).wakeUp(2, {7}).answered(1, {8});
    EXPECT_THAT(history.problem(), HasSubstr("answer [08]"));
}

TEST(SwarmMailbox, RequestThatGivesUpBeforeItsDeadlineIsRejected) {
    EXPECT_EQ(aRequestThatIsSent().at(seconds(5)).answered(1, {}).problem(), "");
    EXPECT_NE(aRequestThatIsSent().at(milliseconds(4'999)).answered(1, {}).problem(), "");
}

TEST(SwarmMailbox, RequestThatWaitsBeyondItsDeadlineIsRejected) {
    EXPECT_NE(aRequestThatIsSent().at(milliseconds(5'002)).answered(1, {}).problem(), "");
}

TEST(SwarmMailbox, DeadlineMovesWithItsClock) {
    const auto problemOf = [](seconds by, seconds took) {
        return aRequestThatIsSent()
            .at(seconds(1))
            .clockSet(by)
            .clockSet(by)
            .at(took)
            .answered(1, {})
            .problem();
    };
    EXPECT_EQ(problemOf(seconds(1), seconds(3)), "");
    EXPECT_NE(problemOf(seconds(1), seconds(2)), "");
    EXPECT_EQ(problemOf(-seconds(4), seconds(13)), "");
    EXPECT_NE(problemOf(-seconds(4), seconds(14)), "");
}

TEST(SwarmMailbox, StepOfTheClockBeforeTheWaitDoesNotMoveItsDeadline) {
    const auto history = Writer()
                             .clockSet(-seconds(4))
                             .step(Step::kRequest, 1, kMcuRequest)
                             .step(Step::kSent, 1)
                             .at(seconds(9))
                             .answered(1, {});
    EXPECT_NE(history.problem(), "");
}

TEST(SwarmMailbox, RequestThatSleepsOnAfterItsAnswerIsRejected) {
    const auto history =
        aRequestThatIsSent().at(milliseconds(7)).wakeUp(2, {7}).at(seconds(5)).answered(1, {7});
    EXPECT_NE(history.problem(), "");
}

TEST(SwarmMailbox, AnswerThatComesBeforeTheWaitIsForgottenUntilTheDeadline) {
    const auto history = aRequestThatIsSent().wakeUp(2, {7}).at(seconds(5)).answered(1, {7});
    EXPECT_EQ(history.problem(), "");
}

TEST(SwarmMailbox, LateAnswerIsTheNextRequestsAndNotTheOneAfterThat) {
    const auto answersAre = [](const Bytes& second, const Bytes& third) {
        return aRequestThatIsSent()
            .at(seconds(5))
            .answered(1, {})
            .wakeUp(2, {7})
            .step(Step::kRequest, 3, kPowerMode)
            .answered(3, second)
            .step(Step::kRequest, 4, kPowerMode)
            .answered(4, third)
            .problem();
    };
    EXPECT_EQ(answersAre({7}, {}), "");
    EXPECT_THAT(answersAre({7}, {7}), HasSubstr("call 4"));
    EXPECT_THAT(answersAre({}, {}), HasSubstr("call 3"));
}

TEST(SwarmMailbox, WakeUpMayComeOnEitherSideOfAnAnswerThatItOverlaps) {
    const auto answerIs = [](const Bytes& first, const Bytes& second) {
        Writer writer;
        return writer.step(Step::kWakeUp, 1, {7})
            .step(Step::kRequest, 2, kPowerMode)
            .answered(2, first)
            .step(Step::kWakeUpDone, 1)
            .step(Step::kRequest, 3, kPowerMode)
            .answered(3, second)
            .problem();
    };
    EXPECT_EQ(answerIs({7}, {}), "");
    EXPECT_EQ(answerIs({}, {7}), "");
    EXPECT_EQ(answerIs({}, {}), "") << "it is lost when it comes before the slot is emptied";
    EXPECT_NE(answerIs({7}, {7}), "");
}

TEST(SwarmMailbox, OnlyAnUpdateAnswersWith0xFFAndSendsNothing) {
    Writer updating, idle, sent;
    updating.updating(true).step(Step::kRequest, 1, kMcuRequest).answered(1, {0xFF});
    EXPECT_EQ(updating.problem(), "");
    idle.step(Step::kRequest, 1, kMcuRequest).answered(1, {0xFF});
    EXPECT_NE(idle.problem(), "");
    sent.updating(true).step(Step::kRequest, 1, kMcuRequest).step(Step::kSent, 1);
    EXPECT_NE(sent.problem(), "");
}

TEST(SwarmMailbox, TwoRequestsAtOnceAreRejected) {
    const auto history = aRequestThatIsSent()
                             .step(Step::kRequest, 2, kMcuRequest)
                             .step(Step::kSent, 2)
                             .at(milliseconds(7))
                             .wakeUp(3, {7})
                             .answered(1, {7});
    EXPECT_NE(history.problem(), "");
}

TEST(SwarmMailbox, SelfTestsRecordTakesThePlaceOfStaleBytes) {
    const Bytes record = {0xF4, 0xFF, 0xFF, 0xFF, 0, 0, 2, 0, 0, 0xFF, 'O', 'K'};
    const auto answerIs = [](const Bytes& bytes) {
        Writer writer;
        return writer.wakeUp(1, {7})
            .step(Step::kRequest, 2, kSelfTest)
            .answered(2, bytes)
            .problem();
    };
    EXPECT_EQ(answerIs(record), "");
    EXPECT_NE(answerIs({7}), "");
}

TEST(SwarmRegistry, BroadcastThatReachesAllInTheirOrderIsAccepted) {
    Writer writer;
    writer.registered(1, 10).registered(2, 20).step(Step::kInvoke, 3, {1, 2});
    writer.registry(Step::kNotify, 3, 10).registry(Step::kNotify, 3, 20);
    writer.registry(Step::kInvokeDone, 3, 0, 2);
    EXPECT_EQ(problemOfRegistry(writer.history), "");
}

TEST(SwarmRegistry, BroadcastThatLeavesOneOutOrTurnsTheOrderIsRejected) {
    for (const auto& told : {std::vector<int>{20}, {20, 10}, {10, 20, 20}, {}}) {
        Writer writer;
        writer.registered(1, 10).registered(2, 20).step(Step::kInvoke, 3, {1, 2});
        for (const int callback : told) writer.registry(Step::kNotify, 3, callback);
        writer.registry(Step::kInvokeDone, 3, 0, 2);
        EXPECT_THAT(problemOfRegistry(writer.history), HasSubstr("call 3"));
    }
}

TEST(SwarmRegistry, RegistrationDuringABroadcastMayBeTold) {
    for (const bool isTold : {false, true}) {
        Writer writer;
        writer.registered(1, 10).step(Step::kInvoke, 2, {1});
        writer.registered(3, 20).registry(Step::kNotify, 2, 10);
        if (isTold) writer.registry(Step::kNotify, 2, 20);
        writer.registry(Step::kInvokeDone, 2, 0, 1);
        EXPECT_EQ(problemOfRegistry(writer.history), "") << isTold;
    }
}

TEST(SwarmRegistry, RemovalTakesTheOldestOfEqualRegistrationsAndOnlyOne) {
    const auto toldAfterwards = [](const std::vector<int>& told) {
        Writer writer;
        writer.registered(1, 10).registered(2, 20).registered(3, 10);
        writer.registry(Step::kUnregister, 4, 10).registry(Step::kUnregisterDone, 4, 0, 0);
        writer.step(Step::kInvoke, 5, {1});
        for (const int callback : told) writer.registry(Step::kNotify, 5, callback);
        writer.registry(Step::kInvokeDone, 5, 0, 1);
        return problemOfRegistry(writer.history);
    };
    EXPECT_EQ(toldAfterwards({20, 10}), "");
    EXPECT_NE(toldAfterwards({10, 20}), "");
    EXPECT_NE(toldAfterwards({20}), "");
}

TEST(SwarmRegistry, RemovalOfWhatWasNeverRegisteredThatSucceedsIsRejected) {
    Writer writer;
    writer.registry(Step::kUnregister, 1, 10).registry(Step::kUnregisterDone, 1, 0, 0);
    EXPECT_THAT(problemOfRegistry(writer.history), HasSubstr("call 1"));
}

TEST(SwarmMessages, KnowWhatTheLibraryLogsAndNothingElse) {
    EXPECT_TRUE(
        mayBeLogged("doWaitMcu: Timeout 5s waiting for response from MCU. "
                    "frame_seq_num = 0x1f\n"));
    EXPECT_TRUE(mayBeLogged("data[7]:0x5a "));
    EXPECT_FALSE(
        mayBeLogged("doWaitMcu: Timeout 6s waiting for response from MCU. "
                    "frame_seq_num = 0x1f\n"));
    EXPECT_FALSE(mayBeLogged("data[7]:0x5a"));
    EXPECT_FALSE(mayBeLogged("hwInvoke: mClients is empty"));
}

TEST(SwarmShrinking, LeavesWhatTheFindingNeedsAndNothingElse) {
    World world = worldOf(7);
    while (world.boots.front().sessions.front().clients.empty()) world = worldOf(world.seed + 1);
    const uint32_t needed =
        world.boots.front().sessions.front().clients.front().operations.back().number;
    const auto findingOf = [&](const World& tried) -> std::string {
        for (const Boot& boot : tried.boots) {
            for (const Session& session : boot.sessions) {
                for (const Client& client : session.clients) {
                    for (const Operation& operation : client.operations) {
                        if (operation.number == needed) return "answer: wrong";
                    }
                }
            }
        }
        return "";
    };
    const Shrunk shrunk = shrink(world, "answer: wrong", 1'000, findingOf);
    ASSERT_EQ(shrunk.world.boots.size(), 2U) << "the last one is the clean one";
    const Boot& boot = shrunk.world.boots.front();
    EXPECT_THAT(boot.faults, IsEmpty());
    EXPECT_EQ(boot.drawnSteps, 0U);
    ASSERT_EQ(boot.sessions.size(), 1U);
    ASSERT_EQ(boot.sessions.front().clients.size(), 1U);
    EXPECT_EQ(boot.sessions.front().clients.front().operations.size(), 1U);
    EXPECT_EQ(shrunk.finding, "answer: wrong");
}

}  // namespace
}  // namespace quil::swarm
