// The level property is read before each message and decides whether it is printed.
#include <set>

#include "service/quil_service_callback.h"
#include "testing/library_test.h"

namespace quil::tests {

using hardware::quilservicemanager::implementation::QuilServiceCallback;
using testing::ElementsAre;

namespace {

struct Gate {
    const char* level;
    std::set<int> printed;
};
void PrintTo(const Gate& gate, std::ostream* out) { *out << '"' << gate.level << '"'; }

}  // namespace

class LogGate : public LibraryTest {
  protected:
    // Makes calls that log an error, an info and debug messages.
    std::set<int> prioritiesSaid() {
        const android::sp<OpenService> service = new OpenService;
        const android::sp<QuilServiceCallback> callback = new QuilServiceCallback;
        service->hwRegistCallback(nullptr);
        service->hwRegistCallback(callback);
        service->hwUnRegistCallback(callback);
        std::set<int> priorities;
        for (const board::LogLine& line : board.logLines()) priorities.insert(line.priority);
        board.clearLog();
        return priorities;
    }
};

class LogLevel : public LogGate, public testing::WithParamInterface<Gate> {};

TEST_P(LogLevel, PrintsThesePriorities) {
    setLogLevel(GetParam().level);
    EXPECT_EQ(prioritiesSaid(), GetParam().printed);
}

const std::set<int> kErrors = {ANDROID_LOG_ERROR};
const std::set<int> kErrorsAndInfo = {ANDROID_LOG_ERROR, ANDROID_LOG_INFO};
const std::set<int> kAll = {ANDROID_LOG_ERROR, ANDROID_LOG_INFO, ANDROID_LOG_DEBUG};

INSTANTIATE_TEST_SUITE_P(Each, LogLevel,
                         testing::Values(Gate{"E", kErrors}, Gate{"W", kErrors}, Gate{"", kErrors},
                                         Gate{"d", kErrors}, Gate{"V", kErrors},
                                         Gate{"I", kErrorsAndInfo}, Gate{"Info", kErrorsAndInfo},
                                         Gate{"D", kAll}, Gate{"Debug", kAll}));

TEST_F(LogGate, UnsetPropertyPrintsErrorsOnly) { EXPECT_EQ(prioritiesSaid(), kErrors); }

TEST_F(LogGate, ChangeTakesEffectAtTheNextMessage) {
    EXPECT_EQ(prioritiesSaid(), kErrors);
    setLogLevel("D");
    EXPECT_EQ(prioritiesSaid(), kAll);
    setLogLevel("E");
    EXPECT_EQ(prioritiesSaid(), kErrors);
}

}  // namespace quil::tests
