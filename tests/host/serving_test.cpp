// The serving process as its clients meet it: other processes, whose calls take threads of its
// pool.
#include "host/serving.h"

#include <standin/rpc_threadpool.h>

#include <algorithm>
#include <mutex>
#include <thread>

#include "fpga/load_process.h"
#include "testing/debug_text.h"
#include "testing/library_test.h"
#include "testing/remote_service.h"

namespace quil::host {
namespace {

using android::sp;
using board::EventKind;
using hardware::quilservicemanager::V1_0::IQuilServiceCallback;
using hardware::quilservicemanager::V1_0::IQuilServiceManager;
using quil::tests::Bytes;
using quil::tests::debugTextOf;
using quil::tests::RemoteService;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace standin = android::hardware::standin;

const Bytes kVersionRequest = {1, 0, 0, 0, 0, 0, 0, 0};

class Serving : public testing::Test {
  protected:
    Serving() { testing::internal::CaptureStdout(); }
    ~Serving() override {
        end();
        testing::internal::GetCapturedStdout();
    }

    // The process, which comes up for as long as the test lets board time go by.
    void start(std::vector<const char*> arguments = {}) {
        arguments.insert(arguments.begin(), "quil.hardware.quilservicemanager@1.0-service");
        mProcess = std::thread([this, arguments] {
            mExitCode = serve(static_cast<int>(arguments.size()), arguments.data());
        });
        board.runFor(milliseconds(1));
    }

    void startAndComeUp(const std::vector<const char*>& arguments = {}) {
        start(arguments);
        board.runFor(seconds(60));
        ASSERT_THAT(debugTextOf(*client()), HasSubstr("start-up: up, "));
    }

    int end() {
        standin::endServing();
        if (mProcess.joinable()) mProcess.join();
        return mExitCode;
    }

    static sp<RemoteService> client() {
        const auto served = standin::registered(IQuilServiceManager::descriptor, "default");
        const sp<IQuilServiceManager> service = IQuilServiceManager::castFrom(served);
        return service == nullptr ? nullptr : new RemoteService(service);
    }

    // So many clients, each with one request that the MCU leaves without an answer.
    void startClients(size_t count) {
        board.mcu().setSilent(true);
        mAnswers.assign(count, {0xEE});
        ends.assign(count, board::Nanos(0));
        for (size_t i = 0; i < count; ++i) {
            mClients.emplace_back([this, i, remote = client()] {
                const Bytes answer = remote->ask(false, kVersionRequest);
                ends[i] = board.now();
                const std::lock_guard lock(mAnswersMutex);
                mAnswers[i] = answer;
            });
        }
        board.runFor(milliseconds(100));
    }
    void joinClients() {
        for (std::thread& each : mClients) each.join();
        mClients.clear();
    }

    // Those so far: clients may still be waiting.
    std::vector<Bytes> answers() {
        const std::lock_guard lock(mAnswersMutex);
        return mAnswers;
    }

    const quil::tests::FreshLibrary library;
    board::Board board;
    std::vector<board::Nanos> ends;

  private:
    int mExitCode = -1;
    std::thread mProcess;
    std::vector<std::thread> mClients;
    std::mutex mAnswersMutex;
    std::vector<Bytes> mAnswers;
};

TEST_F(Serving, ServiceIsRegisteredBeforeTheProductIsUp) {
    start();
    ASSERT_NE(client(), nullptr);
    EXPECT_LT(board.now(), milliseconds(2));
    EXPECT_THAT(debugTextOf(*client()), HasSubstr("start-up: MCU firmware, for 0 s\n"));
    board.runFor(seconds(60));
    EXPECT_THAT(debugTextOf(*client()), HasSubstr("start-up: up, "));
    EXPECT_EQ(end(), 1);
}

TEST_F(Serving, PendingFpgaImageIsWrittenWithNobodyAskingForIt) {
    board.properties().set(fpga::kUpdateProperty, "1");
    startAndComeUp();
    EXPECT_EQ(board.fpga().version(), "V2.1.0");
    EXPECT_EQ(board.properties().get(fpga::kUpdateProperty, ""), "0");
}

TEST_F(Serving, FiveClientsThatWaitKeepNobodyElseOut) {
    startAndComeUp();
    startClients(5);
    struct Callback : IQuilServiceCallback {
        android::hardware::Return<void> hwNotify(
            const android::hardware::hidl_vec<uint8_t>&) override {
            return android::hardware::Void();
        }
    };
    const sp<IQuilServiceCallback> callback = new Callback;
    const auto before = board.now();
    EXPECT_THAT(debugTextOf(*client()), HasSubstr("requests inside = 5 of at most 12"));
    EXPECT_EQ(client()->hwRegistCallback(callback).withDefault(-9), 0);
    EXPECT_EQ(client()->hwInvoke({7}).withDefault(-9), 1);
    EXPECT_EQ(client()->hwUnRegistCallback(callback).withDefault(-9), 0);
    EXPECT_TRUE(client()->wakeUp({0xAB}).isOk());
    EXPECT_EQ(board.now(), before);
    joinClients();
    // Who waited first has the answer from outside, the others 5 s each, one behind the other.
    std::sort(ends.begin(), ends.end());
    EXPECT_EQ(ends.front(), before);
    EXPECT_EQ(ends.back() - before, seconds(20));
    EXPECT_THAT(answers(), Contains(Bytes{0xAB}).Times(1));
    EXPECT_THAT(answers(), Contains(Bytes{}).Times(4));
}

TEST_F(Serving, HoweverManyClientsAskTheOthersComeIn) {
    startAndComeUp();
    startClients(20);
    const auto before = board.now();
    EXPECT_THAT(answers(), Contains(Bytes{}).Times(8));  // turned away at once
    EXPECT_THAT(debugTextOf(*client()),
                HasSubstr("requests inside = 12 of at most 12, turned away = 8\n"));
    EXPECT_TRUE(client()->wakeUp({0xAB}).isOk());
    EXPECT_EQ(board.now(), before);
    joinClients();
    EXPECT_EQ(*std::max_element(ends.begin(), ends.end()) - before, seconds(55));
}

TEST_F(Serving, DebugComesInWhileTheProductComesUpAndClientsWait) {
    start({"--leave-out=mcu"});
    startClients(20);
    const auto before = board.now();
    EXPECT_THAT(debugTextOf(*client()), HasSubstr("start-up: FPGA load, for 0 s\n"));
    EXPECT_EQ(board.now(), before);
    joinClients();
}

TEST_F(Serving, StageThatIsLeftOutDoesNothing) {
    startAndComeUp({"--leave-out=mcu", "--leave-out=fpga"});
    EXPECT_THAT(board.trace().events(EventKind::kUartTx), IsEmpty());
    EXPECT_THAT(board.trace().events(EventKind::kSpi), IsEmpty());
    EXPECT_THAT(debugTextOf(*client()), HasSubstr("  MCU firmware = left out\n"
                                                  "  FPGA = left out\n"));
}

TEST_F(Serving, OtherStageGoesOnWithoutTheOneLeftOut) {
    startAndComeUp({"--leave-out=mcu"});
    EXPECT_THAT(board.trace().events(EventKind::kUartTx), IsEmpty());
    EXPECT_THAT(board.trace().events(EventKind::kSpi), Not(IsEmpty()));
    end();
    board.trace().clear();
    startAndComeUp({"--leave-out=fpga"});
    EXPECT_THAT(board.trace().events(EventKind::kUartTx), Not(IsEmpty()));
    EXPECT_THAT(board.trace().events(EventKind::kSpi), IsEmpty());
}

TEST_F(Serving, ArgumentThatIsNoneEndsTheProcessBeforeItTouchesAnything) {
    start({"--leave-out=fpgas"});
    EXPECT_EQ(end(), 2);
    EXPECT_THAT(board.log(), ElementsAre("unknown argument --leave-out=fpgas\n"));
    EXPECT_EQ(config_info, nullptr);
}

TEST_F(Serving, ProductThatCannotBeIdentifiedEndsTheProcess) {
    board.productInformation().setFailing(true);
    start();
    EXPECT_EQ(client(), nullptr);
    EXPECT_EQ(end(), 1);
    EXPECT_THAT(board.log(), Contains(HasSubstr("configuration could not be read")));
}

}  // namespace
}  // namespace quil::host
