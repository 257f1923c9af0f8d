// What clients may do while the product comes up, and what must not happen meanwhile.
#include "host/front_door.h"

#include <fcntl.h>

#include <thread>

#include "fpga/load_process.h"
#include "host/firmware_update_guard.h"
#include "host/hosting_component.h"
#include "testing/debug_text.h"
#include "testing/library_test.h"

namespace quil::host {
namespace {

using board::Board;
using board::Event;
using board::EventKind;
using board::Product;
using quil::tests::debugTextOf;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const Bytes kVersion = {1, 0, 0, 0, 0, 0, 0, 0};
const Bytes kLowPower = {0xF0, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};
const Bytes kNormalPower = {0xF1, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};
const Bytes kSelfTest = {0xF4, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};
const Bytes kBusy = {0xFF};
const Bytes kShippedVersion = {'V', '1', '.', '0', '.', '0'};

class FrontDoorTest : public testing::Test {
  protected:
    explicit FrontDoorTest(Product product = Product::kHeron, const char* mcuVersion = "V0.9.0")
        : board(product, {.flashedMcuVersion = mcuVersion}) {
        testing::internal::CaptureStdout();
    }
    ~FrontDoorTest() override {
        host.stop();
        testing::internal::GetCapturedStdout();
    }

    // A start with a client that comes in as soon as it may, and does something at a time of the
    // board's.
    StartUpResult startWithAClient(BootJobs jobs, seconds when, const std::function<void()>& act) {
        std::thread client;
        jobs.letClientsIn = [&](const auto&) {
            client = std::thread([&, when] {
                board.runFor(when);
                act();
            });
            return true;
        };
        StartUpResult result = host.start(jobs);
        client.join();
        return result;
    }

    static BootJobs jobs(bool updateMcu, bool loadFpga) {
        BootJobs jobs;
        jobs.updateMcu = updateMcu;
        jobs.loadFpga = loadFpga;
        return jobs;
    }

    Bytes ask(const Bytes& request) {
        Bytes answer = {0xEE};
        const auto done = host.service()->get(
            request, [&](const auto& bytes) { answer.assign(bytes.begin(), bytes.end()); });
        EXPECT_TRUE(done.isOk());
        return answer;
    }

    void askForANewImage() { board.properties().set(fpga::kUpdateProperty, "1"); }

    const quil::tests::FreshLibrary library;
    Board board;
    HostingComponent host;
};

TEST_F(FrontDoorTest, ClientsAreInOnceTheConfigurationIsReadAndTheLinkIsOpen) {
    BootJobs boot = jobs(true, true);
    int lettingIn = 0;
    boot.letClientsIn = [&](const android::sp<IQuilServiceManager>& service) {
        ++lettingIn;
        EXPECT_NE(service, nullptr);
        EXPECT_STREQ(config_info->product, "Heron");
        EXPECT_NE(fcntl(config_info->mcu_fd, F_GETFD), -1);
        EXPECT_EQ(board.mcuUart().mode(), "8N1");
        EXPECT_EQ(config_info->fw_updating, 1);
        EXPECT_THAT(board.trace().events(EventKind::kUartTx), IsEmpty());
        EXPECT_THAT(board.trace().events(EventKind::kSpi), IsEmpty());
        return true;
    };
    ASSERT_TRUE(host.start(boot).ok());
    EXPECT_EQ(lettingIn, 1);
}

TEST_F(FrontDoorTest, ServiceThatCannotBeOfferedEndsTheStartBeforeAnyJob) {
    BootJobs boot = jobs(true, true);
    boot.letClientsIn = [](const auto&) { return false; };
    const StartUpResult result = host.start(boot);
    EXPECT_EQ(result.error, StartUpError::kService);
    EXPECT_EQ(result.text, "the service could not be registered");
    EXPECT_EQ(host.service(), nullptr);
    EXPECT_EQ(config_info->mcu_fd, -1);
    EXPECT_EQ(config_info->fw_updating, 0);
    EXPECT_THAT(board.trace().events(EventKind::kUartTx), IsEmpty());
}

TEST_F(FrontDoorTest, RequestsInTheMiddleOfAnMcuUpdateAreAnsweredFfAtOnce) {
    std::vector<Bytes> answers;
    board::Nanos took{};
    ASSERT_TRUE(startWithAClient(jobs(true, false), seconds(2), [&] {
                    const auto before = board.now();
                    for (const Bytes& request : {kVersion, kLowPower, kNormalPower, kSelfTest}) {
                        answers.push_back(ask(request));
                    }
                    took = board.now() - before;
                }).ok());
    EXPECT_THAT(answers, ElementsAre(kBusy, kBusy, kBusy, kBusy));
    EXPECT_EQ(took, board::Nanos(0));
    EXPECT_THAT(board.trace().events(EventKind::kProbe), IsEmpty());
    EXPECT_THAT(debugTextOf(*host.service()), HasSubstr("power control = 0, self-test = 0, "));
    EXPECT_THAT(board.violations(), IsEmpty());
    EXPECT_EQ(host.mcuFirmware(), McuFirmware::kReprogrammed);
    EXPECT_EQ(ask(kVersion), kShippedVersion);
}

TEST_F(FrontDoorTest, OtherCallsComeInWhileFirmwareIsWritten) {
    struct Callback : IQuilServiceCallback {
        Return<void> hwNotify(const hidl_vec<uint8_t>& data) override {
            seen = data;
            return android::hardware::Void();
        }
        Bytes seen;
    };
    const android::sp<Callback> callback = new Callback;
    ASSERT_TRUE(startWithAClient(jobs(true, false), seconds(2), [&] {
                    const auto before = board.now();
                    EXPECT_EQ(host.service()->hwRegistCallback(callback).withDefault(-9), 0);
                    EXPECT_EQ(host.service()->hwInvoke({1, 2}).withDefault(-9), 2);
                    EXPECT_EQ(host.service()->hwUnRegistCallback(callback).withDefault(-9), 0);
                    EXPECT_TRUE(host.service()->wakeUp({}).isOk());
                    EXPECT_EQ(board.now(), before);
                }).ok());
    EXPECT_THAT(callback->seen, ElementsAre(1, 2));
}

TEST_F(FrontDoorTest, UpdateFlowAloneReadsAndWritesTheLinkUntilItIsThrough) {
    std::vector<const McuReader*> readers;
    std::vector<size_t> written;
    board.trace().onEvent([&](const Event& event) {
        if (event.kind == EventKind::kGpio) readers.push_back(host.reader());
    });
    ASSERT_TRUE(startWithAClient(jobs(true, false), seconds(1), [&] {
                    for (int i = 0; i < 30; ++i) {
                        const size_t before = board.trace().events(EventKind::kUartTx).size();
                        EXPECT_EQ(ask(kVersion), kBusy);
                        written.push_back(board.trace().events(EventKind::kUartTx).size() - before);
                        board.runFor(milliseconds(100));
                    }
                }).ok());
    EXPECT_THAT(readers, Not(IsEmpty()));
    EXPECT_THAT(readers, Each(nullptr));
    EXPECT_THAT(written, Each(0U));
    EXPECT_NE(host.reader(), nullptr);
    EXPECT_EQ(board.mcuChip().version(), "V1.0.0");
}

class FrontDoorOfAnUpToDateMcu : public FrontDoorTest {
  protected:
    FrontDoorOfAnUpToDateMcu() : FrontDoorTest(Product::kHeron, "V1.0.0") {}
};

// The flash is erased from 0.5 s to 31.7 s.
TEST_F(FrontDoorOfAnUpToDateMcu, RequestsInTheMiddleOfTheFpgasEraseAreAnsweredFf) {
    askForANewImage();
    std::vector<Bytes> answers;
    ASSERT_TRUE(startWithAClient(jobs(true, true), seconds(10), [&] {
                    for (const Bytes& request : {kVersion, kLowPower, kNormalPower, kSelfTest}) {
                        answers.push_back(ask(request));
                    }
                }).ok());
    EXPECT_THAT(answers, ElementsAre(kBusy, kBusy, kBusy, kBusy));
    EXPECT_THAT(board.trace().events(EventKind::kProbe), IsEmpty());
    EXPECT_EQ(host.fpga(), FpgaLoad::kUp);
    EXPECT_EQ(board.fpga().version(), "V2.1.0");
    EXPECT_EQ(config_info->fw_updating, 0);
    EXPECT_EQ(ask(kVersion), kShippedVersion);
    EXPECT_THAT(ask(kLowPower), IsEmpty());
}

TEST_F(FrontDoorTest, FlagStandsWithoutAGapFromTheFirstClientToTheLastImage) {
    askForANewImage();
    std::vector<int> seen;
    BootJobs boot = jobs(true, true);
    boot.letClientsIn = [&](const auto&) {
        board.trace().onEvent([&](const Event&) {
            if (board.properties().get(fpga::kUpdateProperty, "") != "1") return;
            if (seen.empty() || seen.back() != config_info->fw_updating) {
                seen.push_back(config_info->fw_updating);
            }
        });
        return true;
    };
    ASSERT_TRUE(host.start(boot).ok());
    EXPECT_THAT(seen, ElementsAre(1, 2));
    EXPECT_EQ(board.fpga().version(), "V2.1.0");
}

TEST_F(FrontDoorTest, ImageThatIsAskedForWhileTheMcuIsProgrammedIsWrittenBehindTheFlagToo) {
    Bytes answer;
    ASSERT_TRUE(startWithAClient(jobs(true, true), seconds(2), [&] {
                    askForANewImage();
                    board.runFor(seconds(8));
                    answer = ask(kLowPower);
                }).ok());
    EXPECT_EQ(answer, kBusy);
    EXPECT_EQ(board.fpga().version(), "V2.1.0");
}

TEST_F(FrontDoorOfAnUpToDateMcu, PendingImageRaisesTheFlagBeforeClientsWithTheMcuLeftOut) {
    askForANewImage();
    BootJobs boot = jobs(false, true);
    int flag = -1;
    boot.letClientsIn = [&](const auto&) {
        flag = config_info->fw_updating;
        return true;
    };
    ASSERT_TRUE(host.start(boot).ok());
    EXPECT_EQ(flag, 2);
    EXPECT_EQ(host.fpga(), FpgaLoad::kUp);
}

TEST_F(FrontDoorOfAnUpToDateMcu, LoadThatWritesNoImageKeepsNobodyFromTheMcu) {
    Bytes answer;
    ASSERT_TRUE(startWithAClient(jobs(true, true), seconds(3), [&] {
                    EXPECT_EQ(host.fpga(), FpgaLoad::kNotAsked);  // it goes on
                    answer = ask(kVersion);
                }).ok());
    EXPECT_EQ(answer, kShippedVersion);
}

class FrontDoorOfKestrel : public FrontDoorTest {
  protected:
    FrontDoorOfKestrel() : FrontDoorTest(Product::kKestrel, "") {}
};

TEST_F(FrontDoorOfKestrel, PropertyThatItsLoadDoesNotLookAtRaisesNoFlag) {
    askForANewImage();
    std::vector<int> seen;
    board.trace().onEvent([&](const Event& event) {
        if (event.kind == EventKind::kVendor) seen.push_back(config_info->fw_updating);
    });
    ASSERT_TRUE(host.start(jobs(false, true)).ok());
    EXPECT_THAT(seen, Not(IsEmpty()));
    EXPECT_THAT(seen, Each(0));
}

TEST_F(FrontDoorTest, RequestTooShortForAHeaderIsTheLibrarysToRefuse) {
    Bytes answer = {0};
    ASSERT_TRUE(startWithAClient(jobs(true, false), seconds(2), [&] {
                    answer = ask({0xF0, 0xFF, 0xFF, 0xFF, 0, 0, 0});
                }).ok());
    EXPECT_THAT(answer, IsEmpty());
    EXPECT_THAT(debugTextOf(*host.service()), HasSubstr("refused = 1"));
}

TEST_F(FrontDoorTest, DebugTellsTheStageTheStartUpIsAt) {
    std::string early, late;
    ASSERT_TRUE(startWithAClient(jobs(true, true), seconds(2), [&] {
                    early = debugTextOf(*host.service());
                    board.runFor(seconds(4));
                    late = debugTextOf(*host.service());
                }).ok());
    EXPECT_THAT(early, HasSubstr("firmware: fw_updating = 1, "));
    EXPECT_THAT(early, EndsWith("start-up: MCU firmware, for 2 s\n"
                                "  MCU firmware = going on\n"
                                "  FPGA = to come\n"
                                "requests inside = 0, turned away = 0\n"));
    EXPECT_THAT(late, EndsWith("start-up: FPGA load, for 1 s\n"
                               "  MCU firmware = programmed\n"
                               "  FPGA = going on\n"
                               "requests inside = 0, turned away = 0\n"));
    EXPECT_THAT(debugTextOf(*host.service()), HasSubstr("start-up: up, for 0 s\n"
                                                        "  MCU firmware = programmed\n"
                                                        "  FPGA = up\n"));
}

TEST_F(FrontDoorOfAnUpToDateMcu, DebugTellsWhatWasLeftOutOrFailed) {
    ASSERT_TRUE(host.start(jobs(false, false)).ok());
    EXPECT_THAT(debugTextOf(*host.service()), HasSubstr("start-up: up, for 0 s\n"
                                                        "  MCU firmware = left out\n"
                                                        "  FPGA = left out\n"));
    host.stop();
    board.fpga().setStuckUnconfigured(true);
    askForANewImage();
    ASSERT_TRUE(host.start(jobs(true, true)).ok());
    EXPECT_THAT(debugTextOf(*host.service()), HasSubstr("  MCU firmware = left as it was\n"
                                                        "  FPGA = failed (see the log)\n"));
}

TEST_F(FrontDoorOfAnUpToDateMcu, MoreRequestsThanTheLimitAreAnsweredWithNothingAtOnce) {
    board.mcu().setSilent(true);
    BootJobs boot = jobs(false, false);
    boot.requestsAtOnce = 2;
    ASSERT_TRUE(host.start(boot).ok());
    std::thread waiting[] = {std::thread([&] { ask(kVersion); }),
                             std::thread([&] { ask(kVersion); })};
    board.runFor(seconds(1));
    const auto before = board.now();
    EXPECT_THAT(ask(kVersion), IsEmpty());
    EXPECT_EQ(board.now(), before);
    EXPECT_THAT(debugTextOf(*host.service()),
                EndsWith("requests inside = 2 of at most 2, turned away = 1\n"));
    for (std::thread& each : waiting) each.join();
    EXPECT_EQ(board.now() - before, seconds(9));
    EXPECT_THAT(ask(kLowPower), IsEmpty());
    EXPECT_THAT(debugTextOf(*host.service()),
                EndsWith("requests inside = 0 of at most 2, turned away = 1\n"));
}

}  // namespace
}  // namespace quil::host
