// The stand-in for the pool that calls from other processes run on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hidl/HidlTransportSupport.h>
#include <quil/hardware/quilservicemanager/1.0/IQuilServiceCallback.h>
#include <standin/rpc_threadpool.h>

#include <thread>
#include <vector>

#include "board/board.h"

namespace {

using ::android::OK;
using ::android::sp;
using ::android::hardware::configureRpcThreadpool;
using ::android::hardware::hidl_vec;
using ::android::hardware::joinRpcThreadpool;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::quil::hardware::quilservicemanager::V1_0::IQuilServiceCallback;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;

namespace standin = ::android::hardware::standin;

class RpcThreadpool : public testing::Test {
  protected:
    ~RpcThreadpool() override {
        for (std::thread& each : mCallers) each.join();
        standin::endServing();
    }

    // Calls that take a second each, and come 1 ms after one another.
    void startCalls(size_t count) {
        begun.resize(count);
        for (size_t i = 0; i < count; ++i) {
            mCallers.emplace_back([this, i] {
                standin::callFromOutside([&] {
                    begun[i] = board.now();
                    board.runFor(seconds(1));
                });
            });
            board.runFor(milliseconds(1));
        }
    }
    void waitForCalls() {
        for (std::thread& each : mCallers) each.join();
        mCallers.clear();
    }

    quil::board::Board board;
    std::vector<quil::board::Nanos> begun;

  private:
    std::vector<std::thread> mCallers;
};

TEST_F(RpcThreadpool, CallStandsOutsideWhileEveryThreadIsHeldAndTheFirstComesFirst) {
    configureRpcThreadpool(2, false);
    startCalls(5);
    waitForCalls();
    EXPECT_THAT(begun, ElementsAre(milliseconds(0), milliseconds(1), milliseconds(1000),
                                   milliseconds(1001), milliseconds(2000)));
}

TEST_F(RpcThreadpool, CallerThatHasYetToJoinServesNobody) {
    configureRpcThreadpool(2, true);
    startCalls(2);
    board.runFor(milliseconds(498));
    std::thread process(joinRpcThreadpool);
    waitForCalls();
    EXPECT_THAT(begun, ElementsAre(milliseconds(0), milliseconds(500)));
    standin::endServing();
    process.join();
}

TEST_F(RpcThreadpool, WithoutAPoolThereIsOneThreadAndNothingToJoin) {
    joinRpcThreadpool();
    startCalls(2);
    waitForCalls();
    EXPECT_THAT(begun, ElementsAre(milliseconds(0), milliseconds(1000)));
}

TEST_F(RpcThreadpool, WhatIsRegisteredIsFoundByItsNameUntilTheProcessEnds) {
    struct Callback : IQuilServiceCallback {
        Return<void> hwNotify(const hidl_vec<uint8_t>&) override { return Void(); }
    };
    configureRpcThreadpool(1, true);
    const sp<IQuilServiceCallback> object = new Callback;
    EXPECT_EQ(object->registerAsService("mine"), OK);
    EXPECT_EQ(standin::registered(IQuilServiceCallback::descriptor, "mine"), object);
    EXPECT_EQ(standin::registered(IQuilServiceCallback::descriptor, "default"), nullptr);
    standin::endServing();
    EXPECT_EQ(standin::registered(IQuilServiceCallback::descriptor, "mine"), nullptr);
}

}  // namespace
