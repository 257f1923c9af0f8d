#include "host/hosting_component.h"

#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>

#include "board/board.h"
#include "host/firmware_update_guard.h"
#include "testing/library_test.h"

namespace quil::host {
namespace {

using android::hardware::hidl_vec;
using quil::board::Board;
using quil::board::Call;
using quil::tests::kHeronUart;
using quil::tests::LibraryTest;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Each;
using testing::ElementsAre;
using testing::Gt;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kProductFile[] = "/vendor/etc/product.ini";

class HostingComponentTest : public LibraryTest {
  protected:
    HostingComponentTest() { testing::internal::CaptureStdout(); }
    ~HostingComponentTest() override { testing::internal::GetCapturedStdout(); }

    // Without the MCU update, which has its own tests.
    StartUpResult start() { return host.start({.updateMcu = false}); }

    Bytes ask(bool isWrite, const Bytes& request) {
        Bytes answer;
        const auto keep = [&answer](const hidl_vec<uint8_t>& bytes) {
            answer.assign(bytes.begin(), bytes.end());
        };
        const auto done = isWrite ? host.service()->set(hidl_vec<uint8_t>(request), keep)
                                  : host.service()->get(hidl_vec<uint8_t>(request), keep);
        EXPECT_TRUE(done.isOk());
        return answer;
    }

    Bytes getVersion() { return ask(false, {1, 0, 0, 0, 0, 0, 0, 0}); }

    const Bytes version = {'V', '2', '.', '5'};
    HostingComponent host;
};

TEST_F(HostingComponentTest, StartUpOpensTheLinkOfTheProductFileAtItsRate) {
    ASSERT_TRUE(start().ok());
    EXPECT_STREQ(config_info->mcu_uart_path, "/dev/ttyS3");
    EXPECT_GT(config_info->mcu_fd, 0);
    EXPECT_EQ(board.mcuUart().baud(), 115200);
    EXPECT_EQ(board.mcuUart().mode(), "8N1");
}

TEST_F(HostingComponentTest, AnswerOfTheMcuReachesTheClientThatAsked) {
    board.mcu().setAnswer(1, version);
    ASSERT_TRUE(start().ok());
    EXPECT_EQ(getVersion(), version);
    EXPECT_EQ(host.reader()->statistics().frames, 1u);
    EXPECT_THAT(board.violations(), IsEmpty());
}

// A board that stays on would otherwise grow with each command.
TEST_F(HostingComponentTest, ClearedTraceTakesWhatThePartsRecordedWithIt) {
    ASSERT_TRUE(start().ok());
    EXPECT_EQ(loadFpga(), FpgaLoad::kUp);
    getVersion();
    const auto records = [this] {
        return std::vector<size_t>{board.trace().events().size(), board.mcu().requests().size(),
                                   board.mcuUart().sentByHost().size(),
                                   board.mcuChip().starts().size(),
                                   board.fpga().transactions().size()};
    };
    EXPECT_THAT(records(), Each(Gt(0U)));
    board.trace().clear();
    EXPECT_THAT(records(), Each(0U));
}

TEST_F(HostingComponentTest, ValueThatWasSetIsReadBack) {
    ASSERT_TRUE(start().ok());
    EXPECT_THAT(ask(true, {0x02, 0x01, 0, 0, 0, 0, 2, 0, 0xAB, 0xCD}), ElementsAre(0x00));
    EXPECT_THAT(ask(false, {0x02, 0x01, 0, 0, 0, 0, 0, 0}), ElementsAre(0xAB, 0xCD));
}

TEST_F(HostingComponentTest, NoiseAroundAnAnswerDoesNotReachTheClient) {
    board.mcu().setAnswer(1, version);
    board.mcu().setNoise({0x55, 0x00, 0x55, 0xBB}, {0xFF, 0x55});
    ASSERT_TRUE(start().ok());
    EXPECT_EQ(getVersion(), version);
    EXPECT_EQ(getVersion(), version);
    EXPECT_GE(host.reader()->statistics().skippedBytes, 8u);
}

// The remains announce the longest frame of all, and would wait for its bytes.
TEST_F(HostingComponentTest, RemainsOfAFrameAreForgottenBeforeTheNextAnswerComes) {
    board.mcu().setAnswer(1, version);
    ASSERT_TRUE(start().ok());
    board.mcuUart().sendToHost({0x55, 0xBB, 0, 0, 0, 1, 5, 0, 0x26, 0x10});
    board.runFor(2 * McuReader::kLongestGap);
    EXPECT_EQ(getVersion(), version);
    EXPECT_EQ(host.reader()->statistics().abandoned, 1U);
}

TEST_F(HostingComponentTest, AnswerWithAWrongChecksumIsNoAnswer) {
    board.mcu().setCorruptAnswers(true);
    ASSERT_TRUE(start().ok());
    const auto before = board.now();
    EXPECT_THAT(getVersion(), IsEmpty());
    EXPECT_GE(board.now() - before, seconds(5));
    EXPECT_EQ(host.reader()->statistics().badChecksums, 1u);
}

TEST_F(HostingComponentTest, McuThatStaysSilentCostsFiveSecondsAndAnswersNothing) {
    board.mcu().setSilent(true);
    ASSERT_TRUE(start().ok());
    const auto before = board.now();
    EXPECT_THAT(getVersion(), IsEmpty());
    EXPECT_GE(board.now() - before, seconds(5));
    EXPECT_LT(board.now() - before, milliseconds(5100));
}

TEST_F(HostingComponentTest, WhileFirmwareIsUpdatedRequestsAnswerFfAndAfterwardsTheMcu) {
    board.mcu().setAnswer(1, version);
    ASSERT_TRUE(start().ok());
    {
        const FirmwareUpdateGuard updating;
        EXPECT_THAT(getVersion(), ElementsAre(0xFF));
        EXPECT_THAT(board.mcu().requests(), IsEmpty());
    }
    EXPECT_EQ(getVersion(), version);
}

TEST_F(HostingComponentTest, UpdateInsideAnotherEndsNeitherTheOthersFlagNorItsOwner) {
    ASSERT_TRUE(start().ok());
    const FirmwareUpdateGuard outer(Firmware::kFpgas);
    {
        const FirmwareUpdateGuard inner;
        EXPECT_EQ(firmwareBeingWritten(), Firmware::kMcus);
    }
    EXPECT_EQ(firmwareBeingWritten(), Firmware::kFpgas);
    EXPECT_THAT(getVersion(), ElementsAre(0xFF));
}

TEST_F(HostingComponentTest, SignalDuringTheReadersReadLosesNeitherTheLinkNorTheAnswer) {
    board.mcu().setAnswer(1, version);
    ASSERT_TRUE(start().ok());
    board.faults().add({.call = Call::kRead, .path = kHeronUart, .error = EINTR});
    EXPECT_EQ(getVersion(), version);
    EXPECT_FALSE(host.reader()->linkLost());
}

TEST_F(HostingComponentTest, UnpluggedLinkEndsTheReaderAndIsLogged) {
    ASSERT_TRUE(start().ok());
    board.mcuUart().unplug();
    board.runFor(seconds(1));
    EXPECT_TRUE(host.reader()->linkLost());
    EXPECT_THAT(board.log(ANDROID_LOG_ERROR), ElementsAre(HasSubstr("is lost")));
}

TEST_F(HostingComponentTest, ProductFileWithoutALinkIsAStartUpError) {
    board.writeFile(kProductFile, "[mcu]\nmcu_uart_path = UNDEF\n");
    const StartUpResult result = start();
    EXPECT_EQ(result.error, StartUpError::kNoUartPath);
    EXPECT_THAT(result.text, HasSubstr("mcu_uart_path"));
    EXPECT_EQ(host.service(), nullptr);
    EXPECT_EQ(config_info->mcu_fd, -1);
}

TEST_F(HostingComponentTest, LinkThatCannotBeOpenedIsAStartUpErrorWithItsCause) {
    board.faults().add({quil::board::Call::kOpen, "/dev/ttyS3", EACCES});
    const StartUpResult result = start();
    EXPECT_EQ(result.error, StartUpError::kLink);
    EXPECT_THAT(result.text, HasSubstr("/dev/ttyS3"));
}

TEST_F(HostingComponentTest, ProductInformationThatFailsIsAStartUpError) {
    board.productInformation().setFailing(true);
    EXPECT_EQ(start().error, StartUpError::kConfiguration);
}

TEST_F(HostingComponentTest, SecondStartIsRefusedAndTheFirstGoesOn) {
    board.mcu().setAnswer(1, version);
    ASSERT_TRUE(start().ok());
    EXPECT_EQ(start().error, StartUpError::kService);
    EXPECT_EQ(getVersion(), version);
}

TEST_F(HostingComponentTest, AfterAStopItStartsAgain) {
    board.mcu().setAnswer(1, version);
    ASSERT_TRUE(start().ok());
    host.stop();
    EXPECT_EQ(config_info->mcu_fd, -1);
    ASSERT_TRUE(start().ok());
    EXPECT_EQ(getVersion(), version);
}

TEST_F(HostingComponentTest, ComponentThatWasNeverStartedLeavesDescriptorZeroOpen) {
    ASSERT_EQ(parseConfigInfo(), 0);
    const int before = fcntl(STDIN_FILENO, F_GETFD);
    host.stop();
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), before);
}

// The reader on an ordinary pipe, without a board. It runs in real time, but waits for bytes only,
// never for time to pass.
TEST(McuReader, FramesFromAnOrdinaryDescriptorReachTheHandler) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::promise<Bytes> arrived;
    {
        McuReader reader(ends[0],
                         [&](const WireFrame& frame) { arrived.set_value(frame.payload); });
        WireFrame frame;
        frame.payload = {1, 2, 3};
        const Bytes bytes = buildFrame(frame);
        ASSERT_EQ(write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        EXPECT_THAT(arrived.get_future().get(), ElementsAre(1, 2, 3));
        EXPECT_FALSE(reader.linkLost());
    }
    close(ends[0]);
    close(ends[1]);
}

}  // namespace
}  // namespace quil::host
