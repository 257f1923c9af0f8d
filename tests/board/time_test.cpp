// Board time: which thread runs when, and what the clock shows.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "board/board.h"
#include "testing/build.h"
#include "testing/fresh_process.h"

namespace {

using quil::board::Board;
using quil::board::EventKind;
using quil::board::Nanos;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;

// The workstation's own clock: a system call that the board does not intercept.
Nanos realNow() {
    timespec time{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &time);
    return seconds(time.tv_sec) + Nanos(time.tv_nsec);
}

// Ten days: if the workstation slept as well, the test would run into its time limit.
TEST(BoardTime, SleepsTakeBoardTimeOnly) {
    Board board;
    sleep(864000);
    usleep(1500);
    EXPECT_EQ(board.now(), std::chrono::hours(240) + std::chrono::microseconds(1500));
}

TEST(BoardTime, YieldTakesTimeToTheNextWholeMillisecondSoThatALoopOfLooksComesToItsEnd) {
    Board board;
    usleep(300);
    std::thread other([] { usleep(500); });
    sched_yield();
    EXPECT_EQ(board.now(), milliseconds(1));
    sched_yield();
    EXPECT_EQ(board.now(), milliseconds(2));
    other.join();
}

TEST(BoardTime, WallClockStartsAtTheSameInstantOnEveryBoard) {
    Board board;
    timespec time{};
    sleep(2);
    ASSERT_EQ(clock_gettime(CLOCK_REALTIME, &time), 0);
    EXPECT_EQ(time.tv_sec, 1767225602);
    EXPECT_EQ(time.tv_nsec, 0);
}

TEST(BoardTime, ConditionThatNobodySignalsTimesOutAtItsDeadline) {
    Board board;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 864000;
    pthread_mutex_lock(&mutex);
    EXPECT_EQ(pthread_cond_timedwait(&condition, &mutex, &deadline), ETIMEDOUT);
    pthread_mutex_unlock(&mutex);
    EXPECT_EQ(board.now(), std::chrono::hours(240));
}

TEST(BoardTime, SignalEndsAWaitAtTheMomentOfTheSignal) {
    Board board;
    std::mutex mutex;
    std::condition_variable condition;
    bool ready = false;
    std::thread signaller([&] {
        std::this_thread::sleep_for(milliseconds(30));
        const std::lock_guard<std::mutex> lock(mutex);
        ready = true;
        condition.notify_one();
    });
    std::unique_lock<std::mutex> lock(mutex);
    EXPECT_TRUE(condition.wait_for(lock, seconds(5), [&] { return ready; }));
    EXPECT_EQ(board.now(), milliseconds(30));
    lock.unlock();
    signaller.join();
}

TEST(BoardTime, ThreadsThatContendForAMutexGetItInTheOrderInWhichTheyAsked) {
    Board board;
    std::mutex mutex;
    std::vector<int> order;
    mutex.lock();
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            const std::lock_guard<std::mutex> lock(mutex);
            order.push_back(i);
        });
    }
    board.runFor(milliseconds(1));
    mutex.unlock();
    for (std::thread& thread : threads) thread.join();
    EXPECT_THAT(order, ElementsAre(0, 1, 2, 3));
}

std::string traceOfTwoThreads(uint64_t seed) {
    Board board(quil::board::Product::kHeron, {.realtime = false, .seed = seed});
    const auto work = [&board](const char* name, int pause) {
        for (int i = 0; i < 5; ++i) {
            board.trace().add(EventKind::kNote, name, std::to_string(i));
            usleep(static_cast<useconds_t>(pause));
        }
    };
    std::thread first(work, "first", 30), second(work, "second", 20);
    first.join();
    second.join();
    return board.trace().toText();
}

TEST(BoardTime, SameSeedGivesTheSameTraceByteForByte) {
    const std::string once = traceOfTwoThreads(7);
    EXPECT_EQ(once, traceOfTwoThreads(7));
    EXPECT_THAT(once, testing::HasSubstr("note      second: 4"));
}

TEST(BoardTime, ReaderOfAPipeWaitsInBoardTime) {
    Board board;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::thread writer([&] {
        sleep(3);
        EXPECT_EQ(write(ends[1], "x", 1), 1);
    });
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(board.now(), seconds(3));
    writer.join();
    close(ends[0]);
    close(ends[1]);
}

TEST(BoardTimeDeathTest, WaitingForWhatCannotComeEndsWithAReport) {
    quil::tests::dieInAFreshProcess();
    EXPECT_DEATH(
        {
            Board board;
            std::mutex mutex;
            std::condition_variable condition;
            std::unique_lock<std::mutex> lock(mutex);
            condition.wait(lock, [] { return false; });
        },
        "board deadlock at 0.000000 s.*thread 0 waits for a condition");
}

quil::board::BoardOptions impatient() {
    return {.realtime = true, .seed = 1, .standstill = {.after = milliseconds(2)}};
}

TEST(BoardTimeDeathTest, InRealTimeThreadsThatWaitForEachOtherAreReported) {
    quil::tests::dieInAFreshProcess();
    EXPECT_DEATH(
        {
            Board board(quil::board::Product::kHeron, impatient());
            std::mutex first;
            std::mutex second;
            first.lock();
            std::thread other([&] {
                second.lock();
                first.lock();
            });
            while (second.try_lock()) second.unlock();
            second.lock();
        },
        "board deadlock at .* s: every thread waits and nothing is due"
        ".*thread [01] waits for a mutex.*thread [01] waits for a mutex");
}

TEST(BoardTimeDeathTest, InRealTimeAThreadThatKeepsTheBoardsLockIsReported) {
    quil::tests::dieInAFreshProcess();
    EXPECT_DEATH(
        {
            auto options = impatient();
            options.standstill.lockKept = milliseconds(2);
            Board board(quil::board::Product::kHeron, options);
            quil::board::boardLock().lock();
            quil::board::Gate().wait();
        },
        "board deadlock at .* s: thread 0 keeps the board's lock.*thread 0 runs");
}

TEST(BoardTimeDeathTest, ReportOfAStandstillGoesToWhoAskedForIt) {
    // It ends the process while it holds the board's lock, which ThreadSanitizer takes for a fault.
    if (QUIL_SANITIZED) GTEST_SKIP();
    quil::tests::dieInAFreshProcess();
    EXPECT_EXIT(
        {
            auto options = impatient();
            options.standstill.tell = [](const std::string& report) {
                fputs(("told: " + report).c_str(), stderr);
                _exit(7);
            };
            Board board(quil::board::Product::kHeron, options);
            std::mutex mutex;
            std::condition_variable condition;
            std::unique_lock<std::mutex> lock(mutex);
            condition.wait(lock, [] { return false; });
        },
        testing::ExitedWithCode(7), "told: at .* s: every thread waits.*thread 0 waits for a cond");
}

TEST(BoardTime, InRealTimeAWaitWithADeadlineIsNoStandstill) {
    Board board(quil::board::Product::kHeron, impatient());
    std::mutex mutex;
    std::condition_variable condition;
    std::unique_lock<std::mutex> lock(mutex);
    EXPECT_FALSE(condition.wait_for(lock, milliseconds(8), [] { return false; }));
    board.runFor(milliseconds(5));
}

TEST(BoardTime, InRealTimeASleepTakesItsTime) {
    const Nanos start = realNow();
    Board board(quil::board::Product::kHeron, {.realtime = true, .seed = 1});
    board.runFor(milliseconds(2));
    EXPECT_GE(board.now(), milliseconds(2));
    EXPECT_GE(realNow() - start, milliseconds(2));
}

TEST(BoardTime, ThreadFromBeforeTheBoardsSleepsAndAsksForTheTimeWhileTheirPowerComesAndGoes) {
    std::atomic<bool> isOver = false;
    std::atomic<int> looks = 0;
    std::thread outsider([&] {
        const time_t today = time(nullptr);
        for (; !isOver; ++looks) {
            usleep(1);
            sched_yield();
            EXPECT_GE(time(nullptr), today) << "a board's time";
        }
    });
    while (looks == 0) std::this_thread::yield();
    for (int i = 0; i < 10; ++i) Board board;
    isOver = true;
    outsider.join();
}

TEST(BoardPower, SecondBoardIsRefusedWhileOneIsOn) {
    Board board;
    EXPECT_THROW(Board second, std::runtime_error);
}

}  // namespace
