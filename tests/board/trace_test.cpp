// The trace and its exports, read back by independent readers.
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "testing/library_test.h"
#include "testing/program_output.h"

namespace quil::tests {

using namespace std::chrono_literals;
using board::EventKind;
using testing::ElementsAreArray;
using testing::HasSubstr;

class BoardTrace : public LibraryTest {
  protected:
    void SetUp() override {
        openLink();
        const uint8_t bytes[] = {0x55, 0xA5};
        ASSERT_EQ(sdk_uart_write(config_info->mcu_fd, bytes, 2), 2);
        board.runFor(10ms);
    }
};

namespace {

// The levels of a wire of a VCD file, by its time in nanoseconds.
using WireLevels = std::map<int64_t, int>;

// Wires by their letter. Time that goes back is a failure.
std::map<std::string, WireLevels> wiresOf(const std::string& vcd) {
    std::map<std::string, WireLevels> wires;
    std::istringstream lines(vcd);
    int64_t time = -1;
    for (std::string line; std::getline(lines, line);) {
        if (line[0] == '#') {
            const int64_t next = std::stoll(line.substr(1));
            EXPECT_GT(next, time);
            time = next;
        } else if ((line[0] == '0' || line[0] == '1') && time >= 0) {
            wires[line.substr(1)][time] = line[0] - '0';
        }
    }
    return wires;
}

// What the decoder that the file itself names makes of the bytes on the wire.
Bytes decodedByLogicAnalyser(const std::string& vcd, const std::string& wire) {
    const board::TemporaryDirectory scratch("quil-vcd");
    const auto file = scratch.path() / "trace.vcd";
    board::writeWholeFile(file, vcd);
    const size_t setting = vcd.find("$comment " + wire + " from ");
    const size_t begin = vcd.find("sigrok-cli", setting), end = vcd.find("FILE $end", setting);
    if (setting == std::string::npos || end == std::string::npos) return {};
    std::istringstream lines(outputOf(vcd.substr(begin, end - begin) + file.string()));
    Bytes bytes;
    for (std::string line; std::getline(lines, line);) {
        bytes.push_back(
            static_cast<uint8_t>(std::stoi(line.substr(line.find(' ') + 1), nullptr, 16)));
    }
    return bytes;
}

// A board's serial port at rates of every part that uses it: a link's and a boot loader's.
class UartPort {
  public:
    UartPort(speed_t rate, bool isEven) : mDescriptor(open(kHeronUart, O_RDWR | O_NOCTTY)) {
        termios settings{};
        tcgetattr(mDescriptor, &settings);
        cfmakeraw(&settings);
        settings.c_cflag |= CS8 | CREAD | CLOCAL;
        if (isEven) settings.c_cflag |= PARENB;
        cfsetispeed(&settings, rate);
        cfsetospeed(&settings, rate);
        tcsetattr(mDescriptor, TCSANOW, &settings);
    }
    ~UartPort() { close(mDescriptor); }
    UartPort(const UartPort&) = delete;
    UartPort& operator=(const UartPort&) = delete;
    void send(const Bytes& bytes) const {
        EXPECT_EQ(write(mDescriptor, bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }

  private:
    const int mDescriptor;
};

}  // namespace

TEST_F(BoardTrace, VcdHasNanosecondsAndIdleLinesBeforeTheFirstEdgeAndAfterTheLast) {
    const std::string vcd = board.trace().toVcd();
    EXPECT_THAT(vcd, HasSubstr("$timescale 1ns $end"));
    EXPECT_THAT(vcd, HasSubstr("$comment the board's time 0 is #1000000 $end"));
    EXPECT_THAT(vcd, HasSubstr("$var wire 1 ! mcu_tx $end"));
    const WireLevels levels = wiresOf(vcd)["!"];
    ASSERT_GT(levels.size(), 2U);
    EXPECT_EQ(levels.begin()->first, 0);
    EXPECT_EQ(levels.begin()->second, 1);
    const int64_t first = std::next(levels.begin())->first, last = std::prev(levels.end())->first;
    EXPECT_GE(first, 1000000);
    EXPECT_THAT(vcd, testing::EndsWith("\n#2173610\n"));
    EXPECT_GT(last, first);
}

TEST_F(BoardTrace, VcdNamesEachSettingOfAWireAndTheTimeFromWhichItHolds) {
    const std::string vcd = board.trace().toVcd();
    EXPECT_THAT(vcd, HasSubstr("$comment mcu_tx: host to MCU $end\n"
                               "$comment mcu_tx from #1000000: UART 115200 8N1: sigrok-cli "));
    EXPECT_THAT(vcd, HasSubstr("$comment mcu_rx: MCU to host $end\n$timescale"));
    UartPort(B1000000, true).send({0x7F});
    board.runFor(1ms);
    EXPECT_THAT(board.trace().toVcd(),
                HasSubstr("$comment mcu_tx from #11000000: UART 1000000 8E1: "));
}

TEST_F(BoardTrace, VcdIsReadBackByALogicAnalysersDecoderAtEveryRate) {
    if (outputOf("command -v sigrok-cli").empty()) GTEST_SKIP() << "no sigrok-cli";
    Bytes bytes = {0x00, 0xFF, 0x55, 0xAA, 0x01, 0x80, 0x7F};
    for (int i = 0; i < 64; ++i) bytes.push_back(static_cast<uint8_t>(i * 37));
    for (const speed_t rate : {B57600, B115200, B230400, B921600, B1000000, B1500000, B4000000}) {
        for (const bool isEven : {false, true}) {
            board.trace().clear();
            UartPort(rate, isEven).send(bytes);
            board.runFor(20ms);
            EXPECT_EQ(decodedByLogicAnalyser(board.trace().toVcd(), "mcu_tx"), bytes)
                << "rate " << rate << (isEven ? " 8E1" : " 8N1");
        }
    }
}

TEST_F(BoardTrace, WhatAWatcherRemarksIsAnEventButNoPlaceToCutThePowerAt) {
    const uint64_t count = board.trace().count();
    board.trace().remark(EventKind::kNote, "watcher", "seen", {1});
    EXPECT_EQ(board.trace().count(), count);
    EXPECT_EQ(toLine(board.trace().events().back()).substr(13), "note      watcher: seen [01]");
}

TEST_F(BoardTrace, TextIsOneLineAnEvent) {
    const std::string text = board.trace().toText();
    EXPECT_EQ(static_cast<size_t>(std::count(text.begin(), text.end(), '\n')),
              board.trace().events().size());
}

TEST_F(BoardTrace, BurstThatArrivesTellsItsSize) {
    board.mcu().sendUnsolicited({1, 2, 3}, 7);
    board.runFor(1s);
    std::vector<std::string> texts;
    for (const board::Event& event : board.trace().events()) {
        if (event.kind == EventKind::kUartRx) texts.push_back(event.text);
    }
    EXPECT_THAT(texts, testing::ElementsAre("35 bytes"));
}

TEST_F(BoardTrace, FaultThatFiresIsAnEvent) {
    board.faults().add({.call = board::Call::kWrite, .path = kHeronUart, .lostSilently = true});
    const uint8_t byte = 1;
    const size_t sent = board.mcuUart().sentByHost().size();
    EXPECT_EQ(sdk_uart_write(config_info->mcu_fd, &byte, 1), 1);
    EXPECT_EQ(board.trace().events().back().kind, EventKind::kFault);
    EXPECT_EQ(board.mcuUart().sentByHost().size(), sent);
}

}  // namespace quil::tests
