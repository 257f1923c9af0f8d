// An N32 boot loader's requests and answers in an upgrade, byte for byte.
#pragma once

#include <chrono>
#include <vector>

#include "tests/isp/isp_test.h"

namespace quil::tests {

inline const Bytes kN32HandShake = {0xAA, 0x55, 0x01, 0x00, 0x00, 0x00,
                                    0x00, 0x00, 0x25, 0x80, 0x5B};
inline const Bytes kN32GetInfo = {0xAA, 0x55, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xEF};
inline const Bytes kN32Erase = {0xAA, 0x55, 0x30, 0x00, 0x10, 0x00, 0x00, 0x00, 0x20,
                                0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xFF};

inline const Bytes kN32HandShakeOk = {0xAA, 0x55, 0x01, 0x00, 0x00, 0x00, 0xA0, 0x00, 0x5E};
inline const Bytes kN32EraseOk = {0xAA, 0x55, 0x30, 0x00, 0x00, 0x00, 0xA0, 0x00, 0x6F};
inline const Bytes kN32BlockOk = {0xAA, 0x55, 0x31, 0x00, 0x00, 0x00, 0xA0, 0x00, 0x6E};
inline const Bytes kN32CrcOk = {0xAA, 0x55, 0x32, 0x00, 0x00, 0x00, 0xA0, 0x00, 0x6D};

// 60 bytes: the status at 57 and 58, the check byte last.
inline Bytes n32InfoOk() {
    Bytes answer = {0xAA, 0x55, 0x10, 0x00, 0x33, 0x00};
    answer.resize(57, 0x21);
    answer.insert(answer.end(), {0xA0, 0x00});
    answer.push_back(xorOf(answer));
    return answer;
}

// For tests of an upgrade that accept any running checksum: it goes on from upgrade to upgrade, and
// only a new process starts it afresh.
class IspN32Test : public IspTest {
  protected:
    IspN32Test() { mcu.setLine({9600, 8, 'N', 1}); }

    // Arrives after the input flush that follows the pause, even for the shortest block.
    static constexpr std::chrono::milliseconds kLate{60};

    void expectUpToInfo() {
        mcu.expect(kN32HandShake, kN32HandShakeOk);
        mcu.expect(kN32GetInfo, n32InfoOk());
    }
    void expectUpToErase() {
        expectUpToInfo();
        mcu.expect(kN32Erase, kN32EraseOk);
    }
    // Expects the frame of the CRC check for an image of `length`, with any running checksum and so
    // with any check byte.
    void expectCrcCheck(uint32_t length, const Bytes& answer = kN32CrcOk,
                        std::chrono::milliseconds delay = kLate) {
        std::vector<int> frame = {0xAA, 0x55, 0x32, 0x00, 0x18, 0x00, -1, -1, -1, -1};
        frame.resize(26, 0);
        for (const int byte : {0x00, 0x00, 0x00, 0x08}) frame.push_back(byte);
        for (int i = 0; i < 4; ++i) frame.push_back(static_cast<uint8_t>(length >> (8 * i)));
        frame.push_back(ScriptedPeer::kAnyByte);
        mcu.expectPattern(frame, answer, delay);
    }

    int upgrade() {
        board.trace().clear();
        int result = 0;
        printed = standardOutputOf([&] { result = n32_uart_isp_upgrade(kImagePath, kHeronUart); });
        return result;
    }

    std::string printed;
};

inline const Lines kN32Entry = {"open",     kResetLow,      "pause 400 ms",
                                kBoot0High, "pause 400 ms", kResetHigh};
inline const Lines kN32Exit = {"close",   kBoot0Low,     "pause 20 ms",
                               kResetLow, "pause 20 ms", kResetHigh};
inline const Lines kN32SaidLast = {"D mcu_exit_isp_mode: <========== [exit isp]. \n",
                                   "I n32_program: exit isp mode\n"};

}  // namespace quil::tests
