// The self-test as a request to the service.
#include <dlfcn.h>

#include <functional>

#include "testing/self_test_fixture.h"

using Runner = std::function<unsigned(unsigned char*, unsigned)>;

namespace {
Runner g_otherRunner;
}

// Found before the library's function. Calls it, unless a test has set another runner.
unsigned runSelfTestAndGetResult(unsigned char* result, unsigned size) {
    if (g_otherRunner) return g_otherRunner(result, size);
    using Function = unsigned (*)(unsigned char*, unsigned);
    static const auto own = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "runSelfTestAndGetResult"));
    return own(result, size);
}

namespace quil::tests {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {
const Bytes kSelfTestRequest = {0xF4, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};
}

class SelfTestDispatch : public SelfTestFixture {
  protected:
    ~SelfTestDispatch() override { g_otherRunner = nullptr; }

    Bytes askFor(const std::string& items) {
        if (config_info == nullptr) parseProduct();
        configure(items);
        Bytes answer;
        printed = standardOutputOf([&] { answer = service->getBytes(kSelfTestRequest); });
        return answer;
    }
    static void answerWith(unsigned length) {
        g_otherRunner = [length](unsigned char* result, unsigned size) {
            for (unsigned i = 0; i < size; ++i) result[i] = static_cast<unsigned char>(i + 1);
            return length;
        };
    }

    const android::sp<OpenService> service = new OpenService;
};

TEST_F(SelfTestDispatch, GetAnswersTheRecord) {
    EXPECT_THAT(askFor("1"), ElementsAre(0xF4, 0xFF, 0xFF, 0xFF, 0, 0, 10, 0, 0, 1, 'R', 'T', 'C',
                                         ':', 'O', 'K', '\r', '\n'));
    EXPECT_THAT(service->recvData, IsEmpty());
}

TEST_F(SelfTestDispatch, SetRunsNothing) {
    parseProduct();
    EXPECT_THAT(service->setBytes(kSelfTestRequest), IsEmpty());
    EXPECT_THAT(enabledRows(), IsEmpty());
}

TEST_F(SelfTestDispatch, RunnerThatReturns25AnswersItsFirst25Bytes) {
    parseProduct();
    board.probes().setHealth(board::kWifiAp, board::Health::kFaulty);
    const Bytes answer = askFor("3");
    ASSERT_EQ(answer.size(), 25U);
    EXPECT_EQ(std::string(answer.begin() + 10, answer.end()), "WIFI AP:Error\r\n");
}

TEST_F(SelfTestDispatch, RunnerGetsAZeroedBufferOf1024Bytes) {
    Bytes seen;
    g_otherRunner = [&](unsigned char* result, unsigned size) {
        seen.assign(result, result + size);
        return 3U;
    };
    EXPECT_THAT(askFor("1"), ElementsAre(0, 0, 0));
    EXPECT_EQ(seen.size(), 1024U);
    EXPECT_THAT(seen, Each(0));
}

TEST_F(SelfTestDispatch, CountAbove1024IsLimited) {
    answerWith(1025);
    EXPECT_EQ(askFor("1").size(), 1024U);
    answerWith(0xFFFFFFFE);
    EXPECT_EQ(askFor("1").size(), 1024U);
    answerWith(1024);
    EXPECT_EQ(askFor("1").size(), 1024U);
}

TEST_F(SelfTestDispatch, RunnerThatReturnsZeroGivesAnEmptyAnswer) {
    answerWith(0);
    EXPECT_THAT(askFor("1"), IsEmpty());
}

TEST_F(SelfTestDispatch, RunnerFailureGivesAnEmptyAnswerAlsoOverStaleBytes) {
    setLogLevel("D");
    answerWith(0xFFFFFFFF);
    service->wakeUp(Bytes{5, 6});
    EXPECT_THAT(askFor("1"), IsEmpty());
    EXPECT_THAT(board.log(), Contains("selfTest: recvData len = 0\n"));
    EXPECT_THAT(board.log(), Not(Contains(HasSubstr("do selfTest failed"))));
}

TEST_F(SelfTestDispatch, UnusableCardGivesAnEmptyAnswer) {
    for (const auto card :
         {board::SdCard::kMissing, board::SdCard::kFull, board::SdCard::kReadOnly}) {
        board.probes().setSdCard(card);
        EXPECT_THAT(askFor("1"), IsEmpty());
        EXPECT_EQ(board.log(ANDROID_LOG_ERROR).back(), "writeToFile Failed to open file\n");
    }
}

TEST_F(SelfTestDispatch, ReturnsZeroAndLeavesTheBytesInRecvData) {
    answerWith(2);
    EXPECT_EQ(service->selfTest(nullptr), 0);
    EXPECT_THAT(service->recvData, ElementsAre(1, 2));
    answerWith(0xFFFFFFFF);
    EXPECT_EQ(service->selfTest(nullptr), 0);
    EXPECT_THAT(service->recvData, IsEmpty());
}

TEST_F(SelfTestDispatch, LogsEachByteAndTheLengthAtDebug) {
    setLogLevel("D");
    g_otherRunner = [](unsigned char* result, unsigned) {
        result[0] = 0xF4;
        result[1] = 0x0A;
        return 2U;
    };
    service->selfTest(nullptr);
    EXPECT_THAT(board.log(ANDROID_LOG_DEBUG),
                ElementsAre("selfTest: test_result[0] = 0xf4\n",
                            "selfTest: test_result[1] = 0x0a\n", "selfTest: recvData len = 2\n"));
    EXPECT_EQ(board.logLines().back().tag, kServiceTag);
    board.clearLog();
    setLogLevel("I");
    service->selfTest(nullptr);
    EXPECT_THAT(board.log(), IsEmpty());
}

TEST_F(SelfTestDispatch, GetNamesTheTypeAtDebug) {
    setLogLevel("D");
    answerWith(0);
    askFor("1");
    EXPECT_THAT(board.log(), Contains("get: process HIDL_SERVICE_TYPE_SELF_TEST\n"));
}

}  // namespace quil::tests
