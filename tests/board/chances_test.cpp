// What any system does now and then: interrupted calls, short transfers, wake-ups without a signal,
// a clock that is set.
#include "board/core/chances.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "board/board.h"

namespace quil::tests {
namespace {

using board::Board;
using board::BoardOptions;
using board::ChanceRates;
using board::EventKind;
using board::Nanos;
using board::Product;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr uint32_t kAlways = 1'000'000;

BoardOptions sure(const ChanceRates& rates, uint64_t seed = 1) {
    return {.seed = seed, .chances = rates};
}

// Waits for a signal that never comes, for up to two seconds of the real-time clock.
int waitTwoSeconds() {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 2;
    pthread_mutex_lock(&mutex);
    const int result = pthread_cond_timedwait(&condition, &mutex, &deadline);
    pthread_mutex_unlock(&mutex);
    return result;
}

int openUartLine(int flags = 0) { return open("/dev/ttyS3", O_RDWR | O_NOCTTY | flags); }

TEST(BoardChances, WaitForAConditionMayEndWithoutASignalBeforeItsDeadline) {
    Board board(Product::kHeron, sure({.spuriousWakeUps = kAlways}));
    EXPECT_EQ(waitTwoSeconds(), 0);
    EXPECT_LT(board.now(), seconds(2));
}

TEST(BoardChances, SleepMayBeInterruptedAndTellsWhatIsLeft) {
    Board board(Product::kHeron, sure({.interruptions = kAlways}));
    const timespec second{1, 0};
    timespec left{};
    EXPECT_EQ(nanosleep(&second, &left), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(board.now() + Nanos(left.tv_nsec), seconds(1));
    EXPECT_EQ(usleep(1000), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_LE(sleep(10), 10U);
    EXPECT_EQ(board.trace().events(EventKind::kFault).size(), 3U);
}

TEST(BoardChances, WaitForDescriptorsMayBeInterruptedBeforeItsTimeOut) {
    Board board(Product::kHeron, sure({.interruptions = kAlways}));
    pollfd none{-1, POLLIN, 0};
    EXPECT_EQ(poll(&none, 1, 1000), -1);
    EXPECT_EQ(errno, EINTR);
    timeval second{1, 0};
    EXPECT_EQ(select(0, nullptr, nullptr, nullptr, &second), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_LT(board.now(), seconds(2));
    EXPECT_EQ(poll(&none, 1, 0), 0) << "this one does not wait";
}

TEST(BoardChances, DeviceCallsThatMayWaitAreInterruptedAndOthersAreNot) {
    Board board(Product::kHeron, sure({.interruptions = kAlways}));
    EXPECT_EQ(openUartLine(), -1);
    EXPECT_EQ(errno, EINTR);
    const int file = open("/vendor/etc/product.ini", O_RDONLY);
    char byte = 0;
    EXPECT_EQ(read(file, &byte, 1), 1);
    close(file);
}

TEST(BoardChances, LineCallsThatWaitAreInterruptedAndThoseThatDoNotAreNot) {
    Board board(Product::kHeron, sure({.interruptions = kAlways / 2}));
    const auto opened = [](int flags) {
        int line = -1;
        while (line < 0) line = openUartLine(flags);
        return line;
    };
    const int waiting = opened(0), notWaiting = opened(O_NONBLOCK);
    int interrupted = 0;
    for (int i = 0; i < 20; ++i) {
        if (write(waiting, "x", 1) == -1 && errno == EINTR) ++interrupted;
        EXPECT_EQ(write(notWaiting, "x", 1), 1);
    }
    EXPECT_GT(interrupted, 0);
    EXPECT_LT(interrupted, 20);
    close(waiting);
    close(notWaiting);
}

TEST(BoardChances, TransfersMayBeShortButNotEmpty) {
    Board board(Product::kHeron, sure({.shortTransfers = kAlways}));
    const int line = openUartLine();
    const ssize_t sent = write(line, "0123456789", 10);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 10);
    EXPECT_EQ(write(line, "0", 1), 1);
    close(line);
}

TEST(BoardChances, ClockThatIsSetMovesTheEndOfAWaitForATimeOfThatClock) {
    std::vector<Nanos> ends;
    for (uint64_t seed = 1; seed <= 8; ++seed) {
        Board board(Product::kHeron, sure({.clockSteps = kAlways}, seed));
        EXPECT_EQ(waitTwoSeconds(), ETIMEDOUT);
        ends.push_back(board.now());
    }
    EXPECT_THAT(ends, testing::Contains(testing::Lt(seconds(2)))) << "set forwards";
    EXPECT_THAT(ends, testing::Contains(testing::Gt(seconds(2)))) << "set backwards";
    EXPECT_THAT(ends, testing::Each(testing::Le(seconds(12))));
}

TEST(BoardChances, ClockThatIsSetBackBehindPowerOnStillShowsATime) {
    std::atomic<bool> wasBehind = false;
    for (uint64_t seed = 1; seed <= 8; ++seed) {
        Board board(Product::kHeron, sure({.clockSteps = kAlways}, seed));
        std::atomic<bool> isOver = false;
        std::thread watcher([&] {
            for (; !isOver; usleep(100'000)) {
                timespec wall{};
                clock_gettime(CLOCK_REALTIME, &wall);
                EXPECT_GE(wall.tv_nsec, 0);
                if (wall.tv_sec < 1767225600) wasBehind = true;
            }
        });
        waitTwoSeconds();
        isOver = true;
        watcher.join();
    }
    EXPECT_TRUE(wasBehind);
}

TEST(BoardChances, ClockThatIsSetIsTheRealTimeClockOnly) {
    Board board(Product::kHeron, sure({.clockSteps = kAlways}));
    waitTwoSeconds();
    timespec wall{}, steady{};
    clock_gettime(CLOCK_REALTIME, &wall);
    clock_gettime(CLOCK_MONOTONIC, &steady);
    EXPECT_NE(wall.tv_sec, steady.tv_sec);
    EXPECT_EQ(Nanos(steady.tv_nsec), board.now() % seconds(1));
}

TEST(BoardChances, AtSeed0NothingIsLeftToChance) {
    Board board(Product::kHeron, sure({kAlways, kAlways, kAlways, kAlways}, 0));
    EXPECT_EQ(waitTwoSeconds(), ETIMEDOUT);
    EXPECT_EQ(usleep(1000), 0);
    const int line = openUartLine();
    EXPECT_EQ(write(line, "0123456789", 10), 10);
    close(line);
    EXPECT_EQ(board.now(), seconds(2) + milliseconds(1));
}

}  // namespace
}  // namespace quil::tests
