// What the torture finds, and what it lets pass: shown with small programs and made-up outcomes.
#include <gmock/gmock.h>

#include "board/core/temporary_directory.h"
#include "testing/files.h"
#include "tests/torture/case.h"

namespace quil::torture {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

Outcome outcomeWith(int code, const std::string& err, const std::string& out = "") {
    Outcome outcome;
    outcome.ended.code = code;
    outcome.err = err;
    outcome.out = out;
    return outcome;
}

std::vector<std::string> complaints(const Case& one, const Outcome& outcome) {
    return complaintsAbout({"get"}, one, outcome, outcomeWith(0, ""));
}

std::vector<std::string> complaints(const Outcome& outcome) { return complaints({}, outcome); }

TEST(TortureVerdict, FailureThatIsExplainedPasses) {
    EXPECT_THAT(complaints(outcomeWith(0, "")), IsEmpty());
    EXPECT_THAT(complaints(outcomeWith(1, "quilctl: no answer\n")), IsEmpty());
}

TEST(TortureVerdict, DeathHangUnknownCodeAndSilenceAreFound) {
    Outcome outcome = outcomeWith(0, "");
    outcome.ended.signal = SIGSEGV;
    EXPECT_THAT(complaints(outcome), ElementsAre("died: Segmentation fault"));
    outcome.ended.timedOut = true;
    EXPECT_THAT(complaints(outcome), ElementsAre("did not end"));
    EXPECT_THAT(complaints(outcomeWith(99, "quilctl: what\n")),
                ElementsAre("exit code 99 is not in the table"));
    EXPECT_THAT(complaints(outcomeWith(1, "what\n")),
                ElementsAre("exit code 1 without an explanation"));
    EXPECT_THAT(complaints(outcomeWith(6, "quilctl: what\n")),
                ElementsAre("exit code 6: a defect of its own"));
}

TEST(TortureVerdict, WhatIsLeftOnTheDiskIsFound) {
    Outcome outcome = outcomeWith(0, "");
    outcome.leftovers = {"board-1"};
    outcome.boardProblem = "board check: no";
    EXPECT_THAT(complaints(outcome),
                ElementsAre("left behind in the temporary folder: board-1", "board check: no"));
}

TEST(TortureVerdict, JsonHasToBeOneDocumentThatAgreesWithTheExitCode) {
    const Case asJson{.json = true};
    const std::string good = R"({"schema":1,"command":"get","exit_code":0,"result":{}})";
    EXPECT_THAT(complaints(asJson, outcomeWith(0, "", good + "\n")), IsEmpty());
    for (const std::string& bad : {std::string(), good, good + "\n\n", "x" + good + "\n"}) {
        EXPECT_THAT(complaints(asJson, outcomeWith(0, "", bad)),
                    ElementsAre(HasSubstr("not one line of JSON")));
    }
    EXPECT_THAT(complaints(asJson, outcomeWith(1, "quilctl: x\n", good + "\n")),
                ElementsAre("JSON exit_code is wrong", "JSON error and exit code"));
}

TEST(TortureVerdict, DemandsAreHeldAgainstTheExitCode) {
    const auto withDemand = [](Demand demand, const Outcome& outcome) {
        return complaints({.demand = demand, .interruption = Interruption{}}, outcome);
    };
    const Outcome passed = outcomeWith(0, "");
    EXPECT_THAT(withDemand(Demand::kFailure, passed),
                ElementsAre("the call to fail did not come", "exit code 0, not a failure's"));
    EXPECT_THAT(withDemand(Demand::kNotWritten, passed), ElementsAre("exit code 0, not 5"));
    EXPECT_THAT(withDemand(Demand::kInterrupted, passed),
                ElementsAre("exit code 0, not an interruption's"));
    EXPECT_THAT(withDemand(Demand::kSameCode, outcomeWith(1, "quilctl: x\n")),
                ElementsAre("exit code 1, not 0"));
    Outcome other = passed;
    other.tree = "a file more";
    EXPECT_THAT(withDemand(Demand::kTruth, other), ElementsAre(HasSubstr("is not written")));
}

TEST(TortureVerdict, LineThatIsWrittenOverHasToFitTheTerminal) {
    Case narrow{.out = Stream::kTerminal, .columns = 4};
    Outcome outcome = outcomeWith(0, "");
    outcome.ended.terminal = "12345\r\n\x1b[32m1234\x1b[0m\rE/tag: long\r\n";
    EXPECT_THAT(complaints(narrow, outcome), IsEmpty());
    outcome.ended.terminal = "12345\r1\r\n" + std::string(81, 'x') + "\r\n";
    EXPECT_THAT(complaints(narrow, outcome),
                ElementsAre(HasSubstr("a line of 5 columns"), HasSubstr("a line of 81 columns")));
}

// The shell, with the calls of it that `policy` is asked about.
class TortureRun : public testing::Test {
  protected:
    Ended shell(const std::string& script, const Policy& policy = {}) {
        Start start;
        start.words = {"/bin/sh", "-c", script};
        start.environment = {"PATH=/usr/bin:/bin"};
        start.folder = mFolder.path();
        start.outFile = path("out");
        start.errFile = path("err");
        start.policy = policy;
        start.bound = mBound;
        return run(start);
    }
    std::string path(const char* name) const { return mFolder.path() / name; }
    std::string content(const char* name) const { return tests::contentOf(path(name)); }

    std::chrono::milliseconds mBound{20000};

  private:
    const board::TemporaryDirectory mFolder{"torture-test"};
};

TEST_F(TortureRun, GivesCodeOutputAndSignal) {
    EXPECT_EQ(shell("echo out; echo err >&2; exit 3").code, 3);
    EXPECT_EQ(content("out"), "out\n");
    EXPECT_EQ(content("err"), "err\n");
    EXPECT_EQ(shell("kill -SEGV $$").signal, SIGSEGV);
}

TEST_F(TortureRun, EndsAProgramThatDoesNotEnd) {
    mBound = std::chrono::milliseconds(1);
    EXPECT_TRUE(shell("exec sleep 1000").timedOut);
}

TEST_F(TortureRun, CallsFailAsThePolicySaysAndOthersHappen) {
    const auto policy = [this](pid_t, const SystemCall& call) {
        const bool fails = call.path == path("b") && call.effect == Effect::kAdds;
        return Answer{fails ? ENOSPC : 0};
    };
    try {
        EXPECT_EQ(shell("echo 1 >a; echo 2 >./b; echo 3 >c", policy).code, 0);
    } catch (const std::runtime_error& error) {
        GTEST_SKIP() << "this system shows no program's calls: " << error.what();
    }
    EXPECT_EQ(content("a"), "1\n");
    EXPECT_FALSE(std::filesystem::exists(path("b")));
    EXPECT_EQ(content("c"), "3\n");
    EXPECT_THAT(content("err"), HasSubstr("b"));
}

}  // namespace
}  // namespace quil::torture
