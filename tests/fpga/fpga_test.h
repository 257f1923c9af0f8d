// Shared by the tests of the FPGA's bring-up: the Heron board's lines, the events on it in order,
// and the log with levels and tags.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "fpga/screen/net_gap.h"
#include "fpga/screen/screen_fixed.h"
#include "fpga/screen/screen_params.h"
#include "fpga/screen/screen_passes.h"
#include "testing/library_test.h"

namespace quil::tests {

inline constexpr char kFwUpdateTag[] = "quil_system_fw_update";
inline constexpr char kSpiDevice[] = "/dev/fpga_spi";
inline constexpr char kControlLine[] = "gpio 441", kConfigLine[] = "gpio 442",
                      kDoneLine[] = "gpio 443";
inline constexpr char kFpgaUpdateProperty[] = "persist.quil.system.fpga.fw.update";
inline constexpr char kFpgaImage[] = "/vendor/firmware/fpga_Heron.bin";

// Registers of the FPGA.
inline constexpr uint32_t kDdrAt = 0x1016, kClockAt = 0x1100, kNegotiationAt = 0x1103;

// A write transaction: its head in hexadecimal, its data, the final 0.
inline Bytes transfer(const std::string& head, const Bytes& data) {
    return bytesOf(head) + data + Bytes{0};
}

// `count` bytes that differ from their neighbours and from block to block.
inline Bytes pattern(size_t count, uint8_t seed) {
    Bytes bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(seed + i * 7 + i / 256 * 3 + 1);
    }
    return bytes;
}

class FpgaTest : public LibraryTest {
  protected:
    // A test that makes a part of the board record violations has to expect them.
    void TearDown() override { EXPECT_THAT(board.violations(), testing::SizeIs(mViolations)); }
    void expectViolations(size_t count) { mViolations = count; }

    // Clears the log and the trace.
    void startFresh(const std::string& level = "D") {
        if (config_info == nullptr) parseProduct();
        setLogLevel(level);
        board.clearLog();
        board.trace().clear();
    }

    // "D text" for each message. All have the same tag.
    std::vector<std::string> messages() {
        std::vector<std::string> lines;
        for (const board::LogLine& line : board.logLines()) {
            EXPECT_EQ(line.tag, kFwUpdateTag) << line.text;
            lines.push_back(std::string(1, letterOf(line.priority)) + " " + line.text);
        }
        return lines;
    }

    // Commands, pauses, edges and SPI transactions, in order.
    std::vector<std::string> timeline() {
        std::vector<std::string> lines;
        for (const board::Event& event : board.trace().events()) {
            if (event.kind == board::EventKind::kShell) lines.push_back("$ " + event.text);
            if (event.kind == board::EventKind::kSleep) lines.push_back("sleep " + event.text);
            if (event.kind == board::EventKind::kGpio) {
                lines.push_back(event.source + " = " + event.text);
            }
            if (event.kind == board::EventKind::kSpi) lines.push_back(spiLine(event));
        }
        return lines;
    }

    // The frames written to the FPGA, each with all its bytes.
    std::vector<Bytes> writes() {
        std::vector<Bytes> frames;
        for (const board::Event& event : board.trace().events(board::EventKind::kSpi)) {
            if (event.text.rfind("write", 0) == 0) frames.push_back(event.bytes);
        }
        return frames;
    }
    std::vector<std::string> writtenHex() {
        std::vector<std::string> lines;
        for (const Bytes& frame : writes()) lines.push_back(hexOf(frame));
        return lines;
    }

    std::vector<std::string> sleeps() { return textsOf(board::EventKind::kSleep); }
    std::vector<std::string> commands() { return textsOf(board::EventKind::kShell); }

  private:
    static char letterOf(int priority) {
        return priority == ANDROID_LOG_ERROR ? 'E' : priority == ANDROID_LOG_INFO ? 'I' : 'D';
    }
    static std::string spiLine(const board::Event& event) {
        const bool isWrite = event.text.rfind("write", 0) == 0;
        return isWrite ? "spi " + hexOf(event.bytes) : event.text.substr(0, event.text.find(','));
    }
    std::vector<std::string> textsOf(board::EventKind kind) {
        std::vector<std::string> texts;
        for (const board::Event& event : board.trace().events(kind)) texts.push_back(event.text);
        return texts;
    }

    size_t mViolations = 0;
};

}  // namespace quil::tests
