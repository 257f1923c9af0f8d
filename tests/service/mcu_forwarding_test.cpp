// MCU requests: sending, the wait for the answer, and its delivery.
#include <chrono>
#include <thread>

#include "testing/library_test.h"

namespace quil::tests {

using namespace std::chrono_literals;
using namespace hardware::quilservicemanager::implementation;  // NOLINT: the thing tested
using board::Call;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {
const Bytes kGetVersion = {1, 0, 0, 0, 0, 0, 0, 0};
}

class McuForwarding : public LibraryTest {
  protected:
    void SetUp() override { openLink(); }

    // Delivers an answer after `delay` of board time, as the MCU's reader does.
    std::thread answerAfter(board::Nanos delay, Bytes bytes) {
        return std::thread([this, delay, bytes = std::move(bytes)] {
            board.runFor(delay);
            service->wakeUp(bytes);
        });
    }

    android::sp<OpenService> service = new OpenService;
};

TEST_F(McuForwarding, AnswerThatWakeUpDeliversIsTheClientsAnswer) {
    std::thread reader = answerAfter(100ms, {1, 2, 3});
    EXPECT_THAT(service->getBytes(kGetVersion), ElementsAre(1, 2, 3));
    EXPECT_EQ(board.now() / 100ms, 1);
    EXPECT_THAT(service->recvData, IsEmpty());
    EXPECT_FALSE(service->mDataReady);
    EXPECT_THAT(board.log(), IsEmpty());
    reader.join();
}

TEST_F(McuForwarding, GetSendsTheWriteFlagClearAndSetSendsItSet) {
    std::thread first = answerAfter(100ms, {1});
    service->getBytes({0x02, 0x01, 0, 0, 0, 0, 1, 0, 0x01});
    first.join();
    std::thread second = answerAfter(100ms, {1});
    service->setBytes({0x02, 0x01, 0, 0, 0, 0, 1, 0, 0x01});
    second.join();
    const auto requests = board.mcu().requests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(requests[0].flags, 0x41);
    EXPECT_EQ(requests[1].flags, 0x61);
    EXPECT_EQ(requests[1].cmd, 0x102U);
    EXPECT_EQ(requests[0].label, 1);
    EXPECT_EQ(requests[1].label, 2);
    EXPECT_THAT(requests[1].payload, ElementsAre(1));
    EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(McuForwarding, NoAnswerWithin5SecondsAnswersEmptyAndLogsTheLabel) {
    g_n_lable = 0x1A;
    const auto start = board.now();
    EXPECT_THAT(service->getBytes(kGetVersion), IsEmpty());
    EXPECT_EQ(board.now() - start, 5s);
    EXPECT_THAT(board.log(), ElementsAre("doWaitMcu: Timeout 5s waiting for response from MCU. "
                                         "frame_seq_num = 0x1b\n"));
}

TEST_F(McuForwarding, TimeOutIsNoFailureOfTheSend) {
    tclvMsg msg;
    msg.cmd = 1;
    EXPECT_EQ(service->sendTclvDataToMcu(&msg, 0), 0);
}

TEST_F(McuForwarding, TimeOutAfterLabel65535PrintsZero) {
    g_n_lable = 65534;
    service->getBytes(kGetVersion);
    EXPECT_THAT(board.log(ANDROID_LOG_ERROR),
                ElementsAre("doWaitMcu: Timeout 5s waiting for response from MCU. "
                            "frame_seq_num = 0x0\n"));
}

TEST_F(McuForwarding, TimeOutStillSaysReadyAndEmptyAtDebug) {
    setLogLevel("D");
    service->doWaitMcu();
    EXPECT_THAT(board.log(), ElementsAre("doWaitMcu: Timeout 5s waiting for response from MCU. "
                                         "frame_seq_num = 0x0\n",
                                         "doWaitMcu data from thread_mcu is ready\n",
                                         "doWaitMcu: recvData is empty\n"));
}

TEST_F(McuForwarding, EmptyAnswerEndsTheWaitAtOnce) {
    setLogLevel("D");
    std::thread reader = answerAfter(10ms, {});
    const auto start = board.now();
    service->doWaitMcu();
    EXPECT_EQ(board.now() - start, 10ms);
    EXPECT_THAT(board.log(),
                ElementsAre("wakeUp is called\n", "doWaitMcu data from thread_mcu is ready\n",
                            "doWaitMcu: recvData is empty\n"));
    reader.join();
}

TEST_F(McuForwarding, SecondWakeUpBeforeTheWaiterRunsReplacesTheFirst) {
    std::thread reader([&] {
        board.runFor(10ms);
        service->wakeUp(Bytes{1, 1, 1});
        service->wakeUp(Bytes{2});
    });
    EXPECT_THAT(service->getBytes(kGetVersion), ElementsAre(2));
    reader.join();
}

TEST_F(McuForwarding, AnswerBeforeTheWaitIsForgottenButItsBytesAreAnsweredAfterTheTimeOut) {
    service->wakeUp(Bytes{9});
    EXPECT_TRUE(service->mDataReady);
    const auto start = board.now();
    EXPECT_THAT(service->getBytes(kGetVersion), ElementsAre(9));
    EXPECT_EQ(board.now() - start, 5s);
    EXPECT_EQ(board.log(ANDROID_LOG_ERROR).size(), 1U);
}

TEST_F(McuForwarding, AnswerThatHoldsTheLockAsTheWaitStartsIsTheAnswer) {
    service->mDataReady = true;  // of an earlier answer
    pthread_mutex_lock(&service->mWaitMutex);
    std::thread waiter([&] { service->doWaitMcu(); });
    for (int look = 0; look < 10 && service->mDataReady; ++look) board.runFor(1ms);
    service->recvData = {5};
    service->mDataReady = true;
    pthread_mutex_unlock(&service->mWaitMutex);
    waiter.join();
    EXPECT_THAT(board.log(), IsEmpty());
    EXPECT_THAT(service->recvData, ElementsAre(5));
}

TEST_F(McuForwarding, FirmwareUpdateAnswers0xFFAndSendsNothing) {
    config_info->fw_updating = 1;
    EXPECT_THAT(service->getBytes(kGetVersion), ElementsAre(0xFF));
    EXPECT_THAT(board.log(), ElementsAre("sendTclvDataToMcu: now fw is updating...return 0xff\n",
                                         "get: sendTclvDataToMcu failed, ret = -1\n"));
    EXPECT_THAT(board.mcuUart().sentByHost(), IsEmpty());
    EXPECT_EQ(g_n_lable, 0);
}

TEST_F(McuForwarding, FirmwareUpdateReplacesStaleBytes) {
    service->wakeUp(Bytes{1, 2, 3});
    config_info->fw_updating = -1;
    EXPECT_THAT(service->setBytes(kGetVersion), ElementsAre(0xFF));
}

TEST_F(McuForwarding, FailedSendAnswersEmptyWithoutAWait) {
    const auto start = board.now();
    config_info->mcu_fd = -1;
    EXPECT_THAT(service->setBytes(kGetVersion), IsEmpty());
    EXPECT_EQ(board.now(), start);
    EXPECT_THAT(board.log(),
                ElementsAre("quil_physical_send: write fd(-1) err(Bad file descriptor)\n",
                            "quil_request: quil_physical_send failed, n_recv_len = 0\n",
                            "sendTclvDataToMcu: send_mcu_message failed\n",
                            "set: sendTclvDataToMcu failed, ret = -1\n"));
}

TEST_F(McuForwarding, FailedSendAnswersStaleBytes) {
    service->wakeUp(Bytes{4});
    config_info->mcu_fd = -1;
    EXPECT_THAT(service->getBytes(kGetVersion), ElementsAre(4));
}

TEST_F(McuForwarding, WriteOfNoBytesIsNoFailureAndTheAnswerIsAwaited) {
    board.faults().add({.call = Call::kWrite, .path = kHeronUart, .shortTo = 0});
    std::thread reader = answerAfter(100ms, {1, 2});
    EXPECT_THAT(service->getBytes(kGetVersion), ElementsAre(1, 2));
    EXPECT_THAT(board.log(), IsEmpty());
    EXPECT_THAT(board.mcuUart().sentByHost(), IsEmpty());
    reader.join();
}

TEST_F(McuForwarding, PortThatDisappearsFailsTheRequest) {
    board.mcuUart().unplug();
    EXPECT_THAT(service->getBytes(kGetVersion), IsEmpty());
    EXPECT_EQ(board.log().back(), "get: sendTclvDataToMcu failed, ret = -1\n");
}

TEST_F(McuForwarding, BodyOver4112BytesIsRefused) {
    Bytes request(8 + 4113);
    request[0] = 1;
    EXPECT_THAT(service->setBytes(request), IsEmpty());
    EXPECT_THAT(board.mcuUart().sentByHost(), IsEmpty());
    EXPECT_EQ(board.log().back(), "set: sendTclvDataToMcu failed, ret = -1\n");
}

TEST_F(McuForwarding, DescriptorAndTypeAreShownAtDebug) {
    setLogLevel("D");
    config_info->fw_updating = 1;
    service->getBytes(kGetVersion);
    EXPECT_THAT(board.log(), Contains("get: process HIDL_SERVICE_TYPE_MCU\n"));
    EXPECT_THAT(
        board.log(),
        Contains("sendTclvDataToMcu: load mcu thread fd = " + std::to_string(config_info->mcu_fd) +
                 ", mcu_type = " + std::to_string(config_info->mcu_type) + "\n"));
}

TEST_F(McuForwarding, MessageWhoseLengthLiesIsRefused) {
    tclvMsg msg;
    msg.length = 4;
    EXPECT_EQ(service->sendTclvDataToMcu(&msg, 0), -1);
    EXPECT_THAT(board.log(),
                ElementsAre("sendTclvDataToMcu: msg->length(0x4) is above msgBody's size(0x0)\n"));
}

TEST_F(McuForwarding, NullMessageAndMissingConfigurationAreErrors) {
    EXPECT_EQ(service->sendTclvDataToMcu(nullptr, 0), -1);
    FreshLibrary::reset();
    EXPECT_THAT(service->getBytes(kGetVersion), IsEmpty());
    EXPECT_THAT(board.log(), ElementsAre("sendTclvDataToMcu: config_info or msg is NULL\n",
                                         "sendTclvDataToMcu: config_info or msg is NULL\n",
                                         "get: sendTclvDataToMcu failed, ret = -1\n"));
}

TEST_F(McuForwarding, RequestsQueueBehindTheOneThatWaits) {
    board::Nanos secondEnd{};
    std::thread second([&] {
        board.runFor(1s);
        service->getBytes(kGetVersion);
        secondEnd = board.now();
    });
    const auto start = board.now();
    service->getBytes(kGetVersion);
    EXPECT_EQ(board.now() - start, 5s);
    second.join();
    EXPECT_EQ(secondEnd - start, 10s);
}

TEST_F(McuForwarding, WakeUpWhenNobodyWaitsLeavesItsBytesAndTheFlag) {
    service->wakeUp(Bytes{7, 8});
    EXPECT_THAT(service->recvData, ElementsAre(7, 8));
    EXPECT_TRUE(service->mDataReady);
}

}  // namespace quil::tests
