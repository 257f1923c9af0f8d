// Boot loaders that answer anything: a session ends, stays inside its buffers (the sanitizers check
// that) and leaves the MCU reset into its application.
#include <random>

#include "tests/isp/isp_test.h"

namespace quil::tests {

namespace {

// Answers each byte with up to three others, mostly ones that have a meaning in some protocol.
class NoisyPeer final : public board::UartPeer {
  public:
    NoisyPeer(board::Board& board, unsigned seed) : mBoard(board), mRandom(seed) {
        mBoard.mcuUart().attach(this);
    }
    ~NoisyPeer() override { mBoard.mcuUart().attach(nullptr); }

    board::LineSettings lineSettings() const override {
        const std::string mode = mBoard.mcuUart().mode();
        return {mBoard.mcuUart().baud(), 8, mode[1], 1};
    }
    void receive(uint8_t) override {
        Bytes answer(mRandom() % 4);
        for (uint8_t& byte : answer) byte = next();
        if (!answer.empty()) mBoard.mcuUart().sendToHost(answer);
    }

  private:
    uint8_t next() {
        constexpr uint8_t kMeaningful[] = {0x79, 0x79, 0x79, 0x79, 0x1F, 0xAA, 0x55,
                                           0xA0, 0x00, 0xFF, 0x01, 0x04, 0x50};
        const auto pick = mRandom() % 16;
        return pick < sizeof(kMeaningful) ? kMeaningful[pick] : static_cast<uint8_t>(mRandom());
    }

    board::Board& mBoard;
    std::mt19937 mRandom;
};

}  // namespace

class IspNoise : public LibraryTest, public testing::WithParamInterface<unsigned> {
  protected:
    IspNoise() : mcu(board, GetParam()) { board.writeFile(kImagePath, textOf(imageOf(3000))); }

    // The levels of BOOT0 and NRST as the last commands left them.
    void expectMcuInItsApplication() {
        const auto commands = board.trace().events(board::EventKind::kShell);
        ASSERT_GE(commands.size(), 3U);
        const auto text = [&](size_t fromLast) {
            return commands[commands.size() - fromLast].text;
        };
        EXPECT_EQ(text(3), kBoot0Low);
        EXPECT_EQ(text(2), kResetLow);
        EXPECT_EQ(text(1), kResetHigh);
    }

    NoisyPeer mcu;
};

TEST_P(IspNoise, EndsAProductionSessionAsAnyOther) {
    const int result = mcu_tool_isp_task(kImagePath, kHeronUart);
    EXPECT_TRUE(result == 0 || result == 15) << result;
    expectMcuInItsApplication();
}

TEST_P(IspNoise, EndsADiagnosticSessionAsAnyOther) {
    for (const unsigned cmd : {0x00U, 0x11U, 0x31U, 0x43U, 0x44U, 0x73U, 0x92U}) {
        int result = 0;
        standardOutputOf([&] { result = task(cmd, kImagePath, kHeronUart); });
        EXPECT_TRUE(result == 0 || result == 3 || result == 15) << result;
        expectMcuInItsApplication();
    }
}

TEST_P(IspNoise, EndsAnN32UpgradeAsAnyOther) {
    int result = 0;
    standardOutputOf([&] { result = n32_uart_isp_upgrade(kImagePath, kHeronUart); });
    EXPECT_TRUE(result == 0 || result == 255) << result;
    expectMcuInItsApplication();
}

INSTANTIATE_TEST_SUITE_P(Seed, IspNoise, testing::Range(1U, 11U));

}  // namespace quil::tests
