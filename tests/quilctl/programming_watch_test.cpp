// What quilctl reads off the line of a programming session.
#include "tools/quilctl/programming/programming_watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "tools/quilctl/programming/product_id.h"
#include "tools/quilctl/programming/programming_progress.h"

namespace quil::tools {
namespace {

using board::Event;
using board::EventKind;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kPort[] = "/dev/ttyS3";

class ProgrammingWatchTest : public testing::Test {
  protected:
    explicit ProgrammingWatchTest(const std::string& chip = "gd32f303") : watch(kPort, chip) {
        watch.onStep([this](const ProgrammingStep& step, const std::string& said) {
            if (!step.isPart || step.end) steps.push_back(step.name + ": " + said);
        });
    }

    void event(EventKind kind, const std::string& source, const std::string& text, Bytes bytes) {
        now += milliseconds(10);
        watch.see({now, kind, source, text, std::move(bytes)});
    }
    void enter() {
        event(EventKind::kShell, "sh", "echo 1 > /sys/class/quilgpios/MCU_BOOT0/value", {});
    }
    void leave() {
        event(EventKind::kShell, "sh", "echo 0 > /sys/class/quilgpios/MCU_BOOT0/value", {});
    }
    void exchange(const Bytes& asked, const Bytes& answered) {
        event(EventKind::kUartTx, kPort, "", asked);
        if (!answered.empty()) event(EventKind::kUartRx, kPort, "", answered);
    }
    // One block of four bytes, as the session writes it.
    void block(uint8_t page, const Bytes& lastAnswer) {
        exchange({0x31, 0xCE}, {0x79});
        exchange({0x08, 0x00, page, 0x00, static_cast<uint8_t>(0x08 ^ page)}, {0x79});
        exchange({0x03, 1, 2, 3, 4}, {});
        exchange({0x07}, lastAnswer);
    }

    board::Nanos now{0};
    ProgrammingWatch watch;
    std::vector<std::string> steps;
};

TEST_F(ProgrammingWatchTest, WholeSessionIsItsStepsAndItsBlocks) {
    enter();
    exchange({0x7F}, {0x79});
    exchange({0x06, 0xF9}, {0x79, 0x04, 0x33, 0x56, 0x45, 0x46, 0x79});
    exchange({0x44, 0xBB}, {0x79});
    exchange({0x00, 0x01, 0x00, 0x00, 0x00, 0x01, 0x00}, {0x79});
    block(0, {0x79});
    block(1, {0x79});
    leave();
    EXPECT_THAT(
        steps, ElementsAre("synchronise: ACK", "get the GD32 product id: part 0x46455633: gd32f303",
                           "erase 2 pages: ACK", "write 4 bytes at 0x08000000: ACK",
                           "write 4 bytes at 0x08000100: ACK"));
    EXPECT_EQ(watch.written(), 0x104u);
    EXPECT_EQ(watch.attempts(), 1);
    EXPECT_FALSE(watch.problem());
}

TEST_F(ProgrammingWatchTest, RefusedBlockIsTheProblemAndNotCounted) {
    enter();
    exchange({0x7F}, {0x79});
    block(0, {0x79});
    block(1, {0x1F});
    leave();
    EXPECT_EQ(watch.written(), 4u);
    ASSERT_TRUE(watch.problem());
    EXPECT_EQ(watch.problem()->step, "write 4 bytes at 0x08000100");
    EXPECT_EQ(watch.problem()->said, "NACK (0x1F)");
}

TEST_F(ProgrammingWatchTest, RefusedCommandHasNoSecondPart) {
    enter();
    exchange({0x7F}, {0x79});
    exchange({0x31, 0xCE}, {0x1F});
    exchange({0x31, 0xCE}, {});
    exchange({0x31, 0xCE}, {0x55});
    leave();
    ASSERT_TRUE(watch.problem());
    EXPECT_EQ(watch.problem()->step, "write");
    EXPECT_EQ(watch.problem()->said, "NACK (0x1F)");
    EXPECT_EQ(watch.written(), 0u);
}

TEST_F(ProgrammingWatchTest, SynchronisationThatWorksTheSecondTimeIsNoProblem) {
    enter();
    exchange({0x7F}, {});
    exchange({0x7F}, {0x79});
    leave();
    EXPECT_FALSE(watch.problem());
}

TEST_F(ProgrammingWatchTest, IdentificationThatFailsIsNoProblem) {
    enter();
    exchange({0x7F}, {0x79});
    exchange({0x06, 0xF9}, {0x1F});
    exchange({0x02, 0xFD}, {});
    leave();
    EXPECT_FALSE(watch.problem());
}

TEST_F(ProgrammingWatchTest, EachAttemptHasItsOwnProblem) {
    enter();
    exchange({0x7F}, {});
    leave();
    EXPECT_EQ(watch.problem()->said, "nothing");
    enter();
    exchange({0x7F}, {0x79});
    leave();
    EXPECT_FALSE(watch.problem());
    EXPECT_EQ(watch.attempts(), 2);
}

TEST_F(ProgrammingWatchTest, WhatCrossesTheLineOutsideASessionIsNoStep) {
    exchange({0x55, 0xBB, 0x00, 0x00}, {0x55, 0xBB});
    EXPECT_THAT(steps, IsEmpty());
    EXPECT_EQ(watch.attempts(), 0);
}

TEST_F(ProgrammingWatchTest, PortThatDoesNotOpenIsTheProblemOfTheAttempt) {
    event(EventKind::kOpen, kPort, "EACCES", {});
    EXPECT_EQ(watch.attempts(), 1);  // the other family's session ends here
    enter();
    EXPECT_EQ(watch.attempts(), 1);
    leave();
    ASSERT_TRUE(watch.problem());
    EXPECT_EQ(watch.problem()->step, "open /dev/ttyS3");
    EXPECT_EQ(watch.problem()->said, "EACCES");
}

TEST_F(ProgrammingWatchTest, MassEraseIsCalledSo) {
    enter();
    exchange({0x44, 0xBB}, {0x79});
    exchange({0xFF, 0xFF, 0x00}, {0x79});
    leave();
    EXPECT_THAT(steps, ElementsAre("erase everything: ACK"));
}

class N32WatchTest : public ProgrammingWatchTest {
  protected:
    N32WatchTest() : ProgrammingWatchTest("n32g45x") {}

    const Bytes done = {0xAA, 0x55, 0x31, 0, 0, 0, 0xA0, 0x00, 0x6E};
    const Bytes refused = {0xAA, 0x55, 0x31, 0, 0, 0, 0xB0, 0x01, 0x7F};
};

TEST_F(N32WatchTest, BlockIsItsAddressAndTheBytesOfTheImage) {
    Bytes frame = {0xAA, 0x55, 0x31, 0, 36, 0, 0x80, 0, 0, 0x08};
    frame.resize(10 + 36 + 1);
    enter();
    exchange(frame, done);
    leave();
    EXPECT_THAT(steps, ElementsAre("write 16 bytes at 0x08000080: status A0 00"));
    EXPECT_EQ(watch.written(), 0x90u);
}

TEST_F(N32WatchTest, AnotherStatusIsTheProblem) {
    enter();
    exchange({0xAA, 0x55, 0x01, 0, 0, 0, 0, 0, 0x25, 0x80, 0x5B}, refused);
    leave();
    ASSERT_TRUE(watch.problem());
    EXPECT_EQ(watch.problem()->step, "handshake");
    EXPECT_EQ(watch.problem()->said, "status B0 01");
}

TEST_F(N32WatchTest, CrcCheckIsAnsweredByAnyAnswer) {
    Bytes frame = {0xAA, 0x55, 0x32, 0, 24, 0, 0, 0, 0, 0};
    frame.resize(35);
    enter();
    exchange(frame, refused);
    leave();
    EXPECT_FALSE(watch.problem());
}

class ProgrammingProgressTest : public ProgrammingWatchTest {
  protected:
    // Writes 20 blocks of an image of 20 * 256 - 252 bytes.
    std::string shown(bool onTerminal) {
        std::ostringstream out, err;
        std::vector<tools::Failure> failures;
        const Screen screen{onTerminal, onTerminal, onTerminal ? 100U : 0U};
        Reporter report(err, screen, ReportForm::kText);
        const Console console{in, out, err, report, screen, false, failures};
        ProgrammingProgress progress(console, watch, 0x1304);
        watch.onStep([&progress](const ProgrammingStep& step, const std::string& said) {
            progress.step(step, said);
        });
        enter();
        exchange({0x7F}, {0x79});
        for (uint8_t page = 0; page < 20; ++page) block(page, {0x79});
        leave();
        progress.finish();
        return err.str();
    }

    std::istringstream in;
};

TEST_F(ProgrammingProgressTest, AnywhereElseThanOnATerminalItIsPlainLines) {
    const std::string text = shown(false);
    EXPECT_THAT(text, HasSubstr("     0.040 s  synchronise: ACK\n"));
    EXPECT_THAT(text, HasSubstr("  write 100%: 4868 of 4868 bytes, "));
    EXPECT_THAT(text, HasSubstr(" kB/s, 0 s left\n"));
    EXPECT_EQ(text.find('\r'), std::string::npos);
    EXPECT_LE(std::count(text.begin(), text.end(), '\n'), 13);
}

TEST_F(ProgrammingProgressTest, OnATerminalItIsABarThatIsWrittenOver) {
    const std::string text = shown(true);
    EXPECT_THAT(text, HasSubstr("\r\033[K 52% [###############...............] 2564 of 4868"));
    EXPECT_THAT(text, HasSubstr("\r\033[K100% [##############################] 4868 of 4868"));
    EXPECT_EQ(text.back(), '\n');
}

TEST(ProductId, IsInTheWholeAnswerToOneOfTheTwoQuestions) {
    const Bytes pid = {0x79, 0x04, 0x33, 0x56, 0x45, 0x46, 0x79},
                id = {0x79, 0x01, 0x04, 0x50, 0x79};
    EXPECT_EQ(productIdIn(kAskForGdPid, pid)->text(), "part 0x46455633: gd32f303");
    EXPECT_EQ(productIdIn(kAskForId, id)->text(), "part 0x0450: stm32h750");
    EXPECT_EQ(productIdIn(kAskForId, {0x79, 0x01, 0x00, 0x00, 0x79})->text(),
              "part 0x0000: unknown to this program");
    EXPECT_FALSE(productIdIn(kAskForGdPid, {0x79, 0x04, 0x33, 0x56, 0x45}));
    EXPECT_FALSE(productIdIn(kAskForId, {0x1F}));
    EXPECT_FALSE(productIdIn(0x11, pid));
}

}  // namespace
}  // namespace quil::tools
