// A device of the workstation in place of one of the board's.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include "board/board.h"
#include "tools/quilctl/programming/lent_port.h"

namespace quil::board {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A pseudo terminal, whose far end is the device.
class LentDevice : public testing::Test {
  protected:
    LentDevice() {
        char name[64] = {};
        if (openpty(&nearEnd, &farEnd, name, nullptr, nullptr) != 0) ADD_FAILURE() << "no pty";
        path = name;
        termios raw{};
        tcgetattr(farEnd, &raw);
        cfmakeraw(&raw);
        tcsetattr(farEnd, TCSANOW, &raw);
    }
    ~LentDevice() override {
        close(nearEnd);
        close(farEnd);
    }

    std::vector<Event> eventsOf(Board& board, EventKind kind) const {
        std::vector<Event> found;
        for (Event& event : board.trace().events(kind)) {
            if (event.source == path) found.push_back(std::move(event));
        }
        return found;
    }

    int nearEnd = -1, farEnd = -1;
    std::string path;
};

TEST_F(LentDevice, WhatCrossesItStandsInTheTrace) {
    Board board;
    board.lendDevice(path);
    const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "\x7F", 1), 1);
    char byte = 0;
    ASSERT_EQ(read(nearEnd, &byte, 1), 1);
    EXPECT_EQ(byte, '\x7F');
    ASSERT_EQ(write(nearEnd, "\x79\x1F", 2), 2);
    char answer[8];
    ASSERT_EQ(read(fd, answer, sizeof(answer)), 2);
    const auto sent = eventsOf(board, EventKind::kUartTx);
    const auto got = eventsOf(board, EventKind::kUartRx);
    ASSERT_EQ(sent.size(), 1u);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_THAT(sent[0].bytes, ElementsAre(0x7F));
    EXPECT_THAT(got[0].bytes, ElementsAre(0x79, 0x1F));
    close(fd);
}

TEST_F(LentDevice, OneThatWasNotLentIsNobodysBusiness) {
    Board board;
    const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_EQ(write(fd, "x", 1), 1);
    EXPECT_THAT(eventsOf(board, EventKind::kUartTx), IsEmpty());
    close(fd);
}

TEST_F(LentDevice, AfterAnOpeningThatFailedTheErrorIsInTheTrace) {
    Board board;
    board.lendDevice("/dev/no-such-device");
    EXPECT_EQ(open("/dev/no-such-device", O_RDWR), -1);
    const auto opened = board.trace().events(EventKind::kOpen);
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0].text, "ENOENT");
}

TEST_F(LentDevice, GateIsAskedBeforeEachWriteAndHoldsItBack) {
    Board board;
    board.lendDevice(path, [](std::span<const uint8_t> bytes) { return bytes[0] != 'x'; });
    const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    EXPECT_EQ(write(fd, "xy", 2), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(write(fd, "z", 1), 1);
    char byte = 0;
    EXPECT_EQ(read(nearEnd, &byte, 1), 1);
    EXPECT_EQ(byte, 'z');
    EXPECT_EQ(eventsOf(board, EventKind::kUartTx).size(), 1u);
    close(fd);
}

TEST_F(LentDevice, PortThatIsNotThereCannotBeLent) {
    Board board;
    EXPECT_THROW(tools::LentPort(board, "/dev/no-such-device", {}), std::runtime_error);
}

}  // namespace
}  // namespace quil::board
