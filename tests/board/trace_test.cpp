// The trace and its exports, read back by independent readers.
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "testing/files.h"
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
    std::string exported(const std::string& name,
                         void (board::Trace::*write)(const std::filesystem::path&) const) {
        const auto path = board.directory() / name;
        (board.trace().*write)(path);
        return contentOf(path);
    }
};

namespace {

// Decodes 8N1 at 115200 from level changes (time in us, level), as a logic analyser does.
Bytes decodeUart(const std::map<long, int>& changes) {
    const auto levelAt = [&](double time) {
        auto it = changes.upper_bound(static_cast<long>(time));
        return it == changes.begin() ? 1 : std::prev(it)->second;
    };
    constexpr double kBit = 1e6 / 115200;
    Bytes bytes;
    double free = -1;
    for (const auto& [time, level] : changes) {
        if (level != 0 || static_cast<double>(time) < free) continue;
        uint8_t byte = 0;
        for (int bit = 0; bit < 8; ++bit) {
            byte |= static_cast<uint8_t>(levelAt(static_cast<double>(time) + kBit * (bit + 1.5))
                                         << bit);
        }
        bytes.push_back(byte);
        free = static_cast<double>(time) + kBit * 9;
    }
    return bytes;
}

}  // namespace

TEST_F(BoardTrace, VcdHasMicrosecondsTimeThatNeverGoesBackAndTheBytesOnItsLine) {
    const std::string vcd = exported("trace.vcd", &board::Trace::writeVcd);
    EXPECT_THAT(vcd, HasSubstr("$timescale 1us $end"));
    EXPECT_THAT(vcd, HasSubstr("#0\n"));
    std::istringstream lines(vcd);
    std::map<std::string, std::map<long, int>> changes;
    long time = -1;
    for (std::string line; std::getline(lines, line);) {
        if (line[0] == '#') {
            const long next = std::stol(line.substr(1));
            EXPECT_GE(next, time);
            time = next;
        } else if ((line[0] == '0' || line[0] == '1') && time >= 0) {
            changes[line.substr(1)][time] = line[0] - '0';
        }
    }
    const uint8_t sent[] = {0x55, 0xA5};
    const bool found = std::any_of(changes.begin(), changes.end(), [&](const auto& line) {
        return decodeUart(line.second) == Bytes(std::begin(sent), std::end(sent));
    });
    EXPECT_TRUE(found) << vcd;
}

TEST_F(BoardTrace, VcdIsReadBackByALogicAnalysersDecoder) {
    if (outputOf("command -v sigrok-cli").empty()) GTEST_SKIP() << "no sigrok-cli";
    const auto path = board.directory() / "trace.vcd";
    board.trace().writeVcd(path);
    const std::string command = "sigrok-cli -i '" + path.string() +
                                "' -I vcd -P uart:rx=mcu_tx:baudrate=115200:format=hex "
                                "-A uart=rx-data";
    EXPECT_EQ(outputOf(command), "uart-1: 55\nuart-1: A5\n");
}

TEST_F(BoardTrace, TraceEventJsonParsesAndHoldsEveryEvent) {
    const auto json =
        nlohmann::json::parse(exported("trace.json", &board::Trace::writeTraceEventJson));
    const auto& events = json.is_array() ? json : json.at("traceEvents");
    EXPECT_GE(events.size(), board.trace().events().size());
    EXPECT_THAT(events.dump(), HasSubstr("2 bytes"));
}

TEST_F(BoardTrace, TextIsOneLineAnEvent) {
    const std::string text = exported("trace.txt", &board::Trace::writeText);
    EXPECT_EQ(text, board.trace().toText());
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
