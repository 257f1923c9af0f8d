// Shared by the tests of MCU programming: a scripted part at the end of the serial line, and what a
// session logged and did.
#pragma once

#include <unistd.h>

#include <cmath>
#include <deque>
#include <filesystem>
#include <string>
#include <vector>

#include "isp/boot_loader.h"
#include "isp/boot_mode.h"
#include "isp/firmware_file.h"
#include "isp/isp_tasks.h"
#include "isp/n32_upgrade.h"
#include "isp/serial_port.h"
#include "testing/isp_session.h"
#include "testing/library_test.h"

namespace quil::tests {

inline constexpr char kFirmwareTag[] = "quil_system_fw_update";
inline constexpr char kImagePath[] = "/vendor/firmware/mcu_test.bin";

// The boot loader's answers to the identifying commands 0x06 and 0x02: ACK, length, identifier
// (little-endian to 0x06), ACK.
inline const Bytes kGd32F470Pid = {0x79, 0x04, 0x30, 0x5A, 0x45, 0x4E, 0x79};
inline const Bytes kGd32F303Pid = {0x79, 0x04, 0x33, 0x56, 0x45, 0x46, 0x79};
inline const Bytes kStm32H750Id = {0x79, 0x01, 0x04, 0x50, 0x79};
inline const Bytes kAnswerAck = {0x79}, kAnswerNack = {0x1F};

// An image in which no two blocks are equal.
inline Bytes imageOf(size_t size) {
    Bytes image(size);
    for (size_t i = 0; i < size; ++i) image[i] = static_cast<uint8_t>(i * 13 + i / 128 * 5 + 1);
    return image;
}

inline Bytes part(const Bytes& image, size_t at, size_t count) {
    const auto from = image.begin() + static_cast<ptrdiff_t>(at);
    return {from, from + static_cast<ptrdiff_t>(count)};
}

// The data frame of a memory write, as in AN3155: length - 1, data, XOR of all these.
inline Bytes blockFrame(const Bytes& data) {
    Bytes frame = Bytes{static_cast<uint8_t>(data.size() - 1)} + data;
    frame.push_back(xorOf(frame));
    return frame;
}

using Lines = std::vector<std::string>;

// Expects byte strings in order, and answers each with a literal. An unexpected byte ends the
// script: the peer keeps a complaint and stays silent from then on.
class ScriptedPeer final : public board::UartPeer {
  public:
    static constexpr int kAnyByte = -1;

    ScriptedPeer(board::Board& board, board::LineSettings line) : mBoard(board), mLine(line) {
        mBoard.mcuUart().attach(this);
    }
    ~ScriptedPeer() override { mBoard.mcuUart().attach(nullptr); }

    void setLine(board::LineSettings line) { mLine = line; }
    // From now on the part follows the port's settings, so that no byte is garbled.
    void followLine() { mFollowsLine = true; }
    void expect(const Bytes& in, Bytes out = {}, board::Nanos delay = {}) {
        mScript.push_back({{in.begin(), in.end()}, std::move(out), delay});
    }
    void expectPattern(std::vector<int> in, Bytes out = {}, board::Nanos delay = {}) {
        mScript.push_back({std::move(in), std::move(out), delay});
    }

    size_t left() const { return mScript.size(); }
    const std::string& complaint() const { return mComplaint; }

    board::LineSettings lineSettings() const override {
        if (!mFollowsLine) return mLine;
        const std::string mode = mBoard.mcuUart().mode();
        return {mBoard.mcuUart().baud(), static_cast<uint8_t>(mode[0] - '0'), mode[1],
                static_cast<uint8_t>(mode[2] - '0')};
    }
    void receive(uint8_t byte) override {
        if (!mComplaint.empty()) return;
        mHeard.push_back(byte);
        if (mScript.empty()) return complain("after the end");
        const Exchange& next = mScript.front();
        const int expected = next.in[mHeard.size() - 1];
        if (expected != kAnyByte && expected != byte) return complain("unexpected byte");
        if (mHeard.size() < next.in.size()) return;
        answer(next);
        mHeard.clear();
        mScript.pop_front();
    }

  private:
    struct Exchange {
        std::vector<int> in;
        Bytes out;
        board::Nanos delay;
    };

    void answer(const Exchange& exchange) {
        if (exchange.out.empty()) return;
        mBoard.after(exchange.delay,
                     [this, out = exchange.out] { mBoard.mcuUart().sendToHost(out); });
    }
    void complain(const char* what) {
        mComplaint = std::string(what) + ", " + std::to_string(mScript.size()) +
                     " exchanges left, heard " + hexOf(mHeard);
    }

    board::Board& mBoard;
    board::LineSettings mLine;
    bool mFollowsLine = false;
    std::deque<Exchange> mScript;
    Bytes mHeard;
    std::string mComplaint;
};

// A board whose MCU follows a script. The test fails unless the script was followed to its end.
class IspTest : public LibraryTest {
  protected:
    IspTest() : mcu(board, kProductionLine) {}
    ~IspTest() override {
        EXPECT_EQ(mcu.complaint(), "");
        EXPECT_EQ(mcu.left(), 0U) << "exchanges of the script that never came";
        EXPECT_THAT(board.violations(), testing::IsEmpty());
        if (isOpen(fd)) close(fd);
    }

    static constexpr board::LineSettings kProductionLine{115200, 8, 'O', 1};

    // Opens the port as a session does, and clears the log.
    void openPort() {
        ASSERT_EQ(mcu_serial_init(kHeronUart, 115200, 8, 1, 'O'), 0);
        board.clearLog();
    }

    // Whether the number stands for an open device of the board.
    bool isOpen(int number) const { return board.isOpen(number); }
    void writeImage(const Bytes& image) { board.writeFile(kImagePath, textOf(image)); }

    // Writes an image of 3 GiB, whose size is a negative int. Returns false where the workstation's
    // C library cannot handle a file of that size; the board's can.
    bool writeHugeImage() {
        if (sizeof(off_t) < 8) return false;
        writeImage({});
        std::filesystem::resize_file(board.hostPath(kImagePath), 3ULL << 30);
        return true;
    }

    // Expects one block of a memory write, and acknowledges each step.
    void expectBlock(const Bytes& address, const Bytes& data) {
        mcu.expect({0x31, 0xCE}, kAnswerAck);
        mcu.expect(address, kAnswerAck);
        mcu.expect(blockFrame(data), kAnswerAck);
    }

    // The message of a read that timed out after a second.
    static std::string timeOut(int got = 0) {
        return "E mcu_serial_read: read fd(" + std::to_string(fd) + ") " + std::to_string(got) +
               " Bytes  100 times! \n";
    }

    // Every message: the letter of its level and its text, behind the tag if that is another one.
    std::vector<std::string> said() const {
        std::vector<std::string> lines;
        for (const board::LogLine& line : board.logLines()) lines.push_back(shown(line));
        return lines;
    }

    // Shell commands, pauses, openings, closings and bytes sent, in order. The 10 ms pauses between
    // polls for an answer are left out.
    std::vector<std::string> done(bool withBytes = false) {
        std::vector<std::string> lines;
        for (const board::Event& event : board.trace().events()) {
            const std::string line = shown(event, withBytes);
            if (!line.empty()) lines.push_back(line);
        }
        return lines;
    }

    ScriptedPeer mcu;

  private:
    static std::string shown(const board::LogLine& line) {
        const std::string letter = line.priority == ANDROID_LOG_ERROR   ? "E "
                                   : line.priority == ANDROID_LOG_INFO  ? "I "
                                   : line.priority == ANDROID_LOG_DEBUG ? "D "
                                                                        : "? ";
        return (line.tag == kFirmwareTag ? "" : line.tag + "/") + letter + line.text;
    }

    static std::string shown(const board::Event& event, bool withBytes) {
        switch (event.kind) {
            case board::EventKind::kShell:
                return event.text;
            case board::EventKind::kSleep: {
                const auto ms = std::lround(std::stod(event.text) * 1000);
                return ms == 10 ? "" : "pause " + std::to_string(ms) + " ms";
            }
            case board::EventKind::kOpen:
                return event.source == kHeronUart ? "open" : "";
            case board::EventKind::kClose:
                return event.source == kHeronUart ? "close" : "";
            case board::EventKind::kUartTx:
                return withBytes ? "send " + hexOf(event.bytes) : "";
            default:
                return "";
        }
    }
};

// The steps and messages of every STM32/GD32 session before and after its exchanges with the boot
// loader.
inline const Lines kEntry = {"open",         kBoot0High, "pause 100 ms", kResetLow,
                             "pause 300 ms", kResetHigh, "pause 100 ms", "pause 500 ms"};
inline const Lines kExit = {"close",        kBoot0Low,  "pause 300 ms", kResetLow,
                            "pause 100 ms", kResetHigh, "pause 100 ms"};
inline const Lines kErasePause = {"pause 1000 ms"};
inline const Lines kSaidFirst = {"D \n [*]. do task ! \n",
                                 "D mcu_set_baudrate: set baudrate: 115200.\n",
                                 "D  ==========> [isp init]. \n"};
inline const Lines kSaidLast = {"D \n [*]. close isp mode.\n", "D  <========== [isp close]. \n"};

}  // namespace quil::tests
