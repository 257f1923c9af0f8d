// quilctl as the device has it: a client of a service that somebody else serves.
#include <nlohmann/json.hpp>

#include "host/firmware_update_guard.h"
#include "host/hosting_component.h"
#include "selftest/self_test.h"
#include "testing/build.h"
#include "testing/library_test.h"
#include "testing/program_output.h"
#include "tests/quilctl/test_run.h"
#include "tools/quilctl/session/service_session.h"

namespace quil::tests {
namespace {

using hardware::quilservicemanager::V1_0::IQuilServiceCallback;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// The host whose service the program under test is given in place of the platform's.
host::HostingComponent* servingHost = nullptr;

class HostsService : public tools::ServiceSession {
  public:
    Service& service() override { return *servingHost->service(); }
};

std::unique_ptr<tools::ServiceSession> connectToTheHost(const tools::Cli& /*cli*/) {
    return std::make_unique<HostsService>();
}

class ForgetfulSession : public tools::ServiceSession {
  public:
    Service& service() override { return *mService; }

  private:
    class Forgetful : public OpenService {
        android::hardware::Return<int32_t> hwUnRegistCallback(
            const android::sp<IQuilServiceCallback>& /*callback*/) override {
            return -1;
        }
    };
    const android::sp<Service> mService = new Forgetful;
};

class QuilctlOnTheDevice : public LibraryTest {
  protected:
    QuilctlOnTheDevice() {
        for (test_option_t& row : test_option_table) row.enable = 0;
        EXPECT_TRUE(host.start({.updateMcu = false}).ok());
        servingHost = &host;
    }
    ~QuilctlOnTheDevice() override { servingHost = nullptr; }

    static Said quilctl(const std::vector<std::string>& words) {
        tools::Program program = tools::kDeviceProgram;
        program.connect = connectToTheHost;
        return runProgram(program, words);
    }

    host::HostingComponent host;
};

}  // namespace

TEST_F(QuilctlOnTheDevice, SendsRequestsToTheServiceAndPrintsItsAnswers) {
    const Said version = quilctl({"get", "1"});
    EXPECT_EQ(version.code, 0);
    EXPECT_EQ(version.out, "56 31 2E 30 2E 30\n");
    EXPECT_EQ(quilctl({"set", "0x102", "01", "0A"}).out, "00\n");
    EXPECT_EQ(quilctl({"get", "0x102"}).out, "01 0A\n");
}

TEST_F(QuilctlOnTheDevice, WithoutAnAnswerSaysSo) {
    board.mcu().setSilent(true);
    const Said answer = quilctl({"get", "1"});
    EXPECT_EQ(answer.code, 1);
    EXPECT_EQ(answer.err, "quilctl: get 0x00000001: no answer\n");
    EXPECT_THAT(answer.out, IsEmpty());
}

TEST_F(QuilctlOnTheDevice, CallbacksArriveOnceForEachRegistration) {
    const Said answer = quilctl({"callbacks", "--count", "2", "--data", "CAFE"});
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.out,
              "hwInvoke returned 2\n"
              "callback 1: CA FE\n"
              "callback 2: CA FE\n");
}

TEST_F(QuilctlOnTheDevice, CallbackThatTheServiceDoesNotFindAgainIsAFailure) {
    tools::Program program = tools::kDeviceProgram;
    program.connect = [](const tools::Cli&) -> std::unique_ptr<tools::ServiceSession> {
        return std::make_unique<ForgetfulSession>();
    };
    const Said answer = runProgram(program, {"callbacks", "--count", "2"});
    EXPECT_EQ(answer.code, tools::kFailed);
    EXPECT_EQ(answer.err, "quilctl: the service did not find 2 of 2 callbacks again\n");
}

TEST_F(QuilctlOnTheDevice, SelfTestPrintsTheVerdictsInTheOrderOfTheRecord) {
    board.probes().setHealth("es8316", board::Health::kFaulty);
    const Said answer = quilctl({"self-test"});
    EXPECT_EQ(answer.code, 1);
    EXPECT_EQ(answer.out,
              "RTC: OK\n"
              "ES8316: Error\n"
              "WIFI AP: OK\n"
              "IDT6965: OK\n");
}

TEST_F(QuilctlOnTheDevice, SelfTestPrintsJsonWhenAsked) {
    const Said answer = quilctl({"--json", "self-test"});
    EXPECT_EQ(answer.code, 0);
    const auto json = resultOf(answer);
    EXPECT_EQ(json["passed"], true);
    EXPECT_EQ(json["items"].size(), 4U);
    EXPECT_EQ(json["items"][0]["item"], "RTC");
    EXPECT_EQ(json["items"][0]["verdict"], "OK");
    EXPECT_EQ(json["record"].size(), 53U);
}

TEST_F(QuilctlOnTheDevice, SelfTestAndPowerModesTellThatFirmwareIsBeingWritten) {
    const host::FirmwareUpdateGuard writing;
    const std::vector<std::vector<std::string>> commands = {
        {"self-test"}, {"power", "low"}, {"power", "normal"}};
    for (const auto& words : commands) {
        const Said answer = quilctl(words);
        EXPECT_EQ(answer.code, 1);
        EXPECT_EQ(answer.err, "quilctl: firmware is being written: ask again later\n");
    }
}

TEST_F(QuilctlOnTheDevice, SelfTestWithoutAnAnswerFails) {
    board.probes().setSdCard(board::SdCard::kMissing);
    const Said answer = quilctl({"self-test"});
    EXPECT_EQ(answer.code, 1);
    EXPECT_THAT(answer.err, testing::StartsWith("quilctl: self-test: no answer\n"));
}

TEST_F(QuilctlOnTheDevice, PowerSendsItsCommand) {
    const Said answer = quilctl({"power", "low"});
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.out, "0xFFFFFFF0 sent, empty answer\n");
}

TEST_F(QuilctlOnTheDevice, KnowsNothingOfASimulatedBoard) {
    EXPECT_EQ(quilctl({"--board", "b", "get", "1"}).code, tools::kUsage);
    const std::string help = quilctl({"--help"}).out;
    EXPECT_THAT(help, Not(HasSubstr("--board")));
    for (const char* command : {"board", "config", "boot", "fpga", "screen", "mcu", "demo"}) {
        EXPECT_EQ(quilctl({command}).code, tools::kUsage) << command;
        EXPECT_THAT(help, Not(HasSubstr(std::string("\n  ") + command + ' '))) << command;
    }
    EXPECT_THAT(help, HasSubstr("\n  frame "));
}

TEST_F(QuilctlOnTheDevice, EveryCommandHasHelp) {
    const std::vector<std::vector<std::string>> commands = {
        {}, {"get"}, {"set"}, {"callbacks"}, {"self-test"}, {"power"}, {"frame"}};
    for (std::vector<std::string> words : commands) {
        words.emplace_back("--help");
        const Said answer = quilctl(words);
        EXPECT_EQ(answer.code, 0);
        EXPECT_THAT(answer.out, HasSubstr(words.size() > 1 ? words[0] : "Exit codes:"));
    }
}

TEST_F(QuilctlOnTheDevice, FindsTheServiceThatThePlatformNames) {
    const Said answer = runProgram(tools::kDeviceProgram, {"callbacks"});
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.out,
              "hwInvoke returned 3\n"
              "callback 1: 01 02 03\n");
}

TEST(QuilctlDeviceProgram, RunsWithoutTheBoardAndSaysWhenThereIsNoService) {
    const std::string program = QUIL_EMULATOR " '" QUIL_BIN_DIR "/quilctl_device' ";
    EXPECT_EQ(outputOf(program + "frame encode 1"),
              "55 BB 00 00 00 01 01 00 16 00 41 01 00 00 00 00 00 00 00 00 00 00 01 00 00 00 "
              "00 00 00 00 6B 01\n");
    const std::string said = outputOf(program + "get 1 2>&1; echo \"exit code $?\"");
    EXPECT_THAT(said, HasSubstr("quilctl: there is no service (see the log)\nexit code 4\n"));
}

TEST(QuilctlDeviceProgram, NeedsNeitherTheBoardNorTheImplementation) {
    const std::string dynamic = outputOf("readelf -d '" QUIL_BIN_DIR "/quilctl_device'");
    EXPECT_THAT(dynamic, HasSubstr("[quil.hardware.quilservicemanager@1.0.so]"));
    EXPECT_THAT(dynamic, Not(HasSubstr("quilboard")));
    EXPECT_THAT(dynamic, Not(HasSubstr("-impl.so")));
}

}  // namespace quil::tests
