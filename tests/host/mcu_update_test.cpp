// The hosting component's part in an MCU update: the flag, the link, the reader.
#include "isp/mcu_update.h"

#include <android/log.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/hosting_component.h"
#include "host/start_up.h"
#include "isp/serial_port.h"
#include "testing/library_test.h"

namespace quil::host {
namespace {

using board::Board;
using board::Call;
using board::Event;
using board::EventKind;
using quil::tests::kHeronUart;
using quil::tests::kMcuImage;
using quil::tests::LibraryTest;
using std::chrono::milliseconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class HostMcuUpdate : public testing::Test {
  protected:
    HostMcuUpdate() { testing::internal::CaptureStdout(); }
    ~HostMcuUpdate() override {
        host.stop();
        testing::internal::GetCapturedStdout();
    }

    std::string versionThroughTheService() {
        board.runFor(milliseconds(10));  // the MCU starts
        std::string version;
        const android::hardware::hidl_vec<uint8_t> request = {1, 0, 0, 0, 0, 0, 0, 0};
        const auto done = host.service()->get(
            request, [&](const auto& bytes) { version.assign(bytes.begin(), bytes.end()); });
        EXPECT_TRUE(done.isOk());
        return version;
    }

    const quil::tests::FreshLibrary library;
    Board board{board::Product::kHeron, {.flashedMcuVersion = "V0.9.0"}};
    HostingComponent host;
};

TEST_F(HostMcuUpdate, BootWithOlderFirmwareEndsWithTheShippedVersionAnswering) {
    ASSERT_EQ(board.mcuChip().version(), "V0.9.0");
    ASSERT_TRUE(host.start().ok());
    EXPECT_EQ(host.mcuFirmware(), McuFirmware::kReprogrammed);
    EXPECT_EQ(versionThroughTheService(), "V1.0.0");
    EXPECT_EQ(board.properties().get(isp::kMcuVersionProperty, ""), "V1.0.0");
    EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(HostMcuUpdate, LinkThatTheUpdateLeavesBehindIsClosedAndTheNewOneTakesItsPlace) {
    ASSERT_TRUE(startUp().ok());
    const int former = config_info->mcu_fd;
    EXPECT_EQ(bringMcuUpToDate(), McuFirmware::kReprogrammed);
    EXPECT_NE(config_info->mcu_fd, former);
    EXPECT_EQ(fcntl(former, F_GETFD), -1);
    EXPECT_NE(fcntl(config_info->mcu_fd, F_GETFD), -1);
    EXPECT_EQ(board.mcuUart().baud(), 115200);
    EXPECT_EQ(board.mcuUart().mode(), "8N1");
    shutDown();
}

TEST_F(HostMcuUpdate, RequestsAreTurnedAwayWhileItRunsAndNotAfterwards) {
    ASSERT_TRUE(startUp().ok());
    std::vector<int> seen;
    board.trace().onEvent([&seen](const Event& event) {
        if (event.kind == EventKind::kGpio) seen.push_back(config_info->fw_updating);
    });
    bringMcuUpToDate();
    EXPECT_THAT(seen, ElementsAre(1, 1, 1, 1, 1, 1));
    EXPECT_EQ(config_info->fw_updating, 0);
    shutDown();
}

TEST_F(HostMcuUpdate, SecondBootHasNothingToDoAndComesUpAllTheSame) {
    ASSERT_TRUE(host.start().ok());
    host.stop();
    board.clearLog();
    ASSERT_TRUE(host.start().ok());
    EXPECT_EQ(host.mcuFirmware(), McuFirmware::kLeftAsItWas);
    EXPECT_THAT(board.log(ANDROID_LOG_ERROR), ElementsAre("mcuFwUpdate: do not need upgrade FW\n"));
    EXPECT_EQ(versionThroughTheService(), "V1.0.0");
}

TEST_F(HostMcuUpdate, UpdateThatFailsLeavesTheLinkAsItWasAndTheServiceComesUp) {
    board.mcuChip().loaderFaults().add(
        {.kind = board::LoaderFault::Kind::kSilent, .step = board::LoaderStep::kSync, .times = -1});
    ASSERT_TRUE(host.start().ok());
    EXPECT_EQ(host.mcuFirmware(), McuFirmware::kLeftAsItWas);
    EXPECT_THAT(board.log(ANDROID_LOG_ERROR), Contains("mcuFwUpdate: doMcuUpdate failed\n"));
    EXPECT_EQ(board.mcuUart().mode(), "8N1");
    EXPECT_EQ(versionThroughTheService(), "V0.9.0");
}

TEST_F(HostMcuUpdate, MissingImageLeavesTheMcuAlone) {
    std::filesystem::remove(board.hostPath(kMcuImage));
    ASSERT_TRUE(host.start().ok());
    EXPECT_EQ(host.mcuFirmware(), McuFirmware::kLeftAsItWas);
    EXPECT_THAT(board.trace().events(EventKind::kGpio), IsEmpty());
    EXPECT_EQ(versionThroughTheService(), "V0.9.0");
}

TEST_F(HostMcuUpdate, LinkThatDoesNotOpenAgainIsAStartUpError) {
    // The host opens the port first, then the session, then the update flow.
    board.faults().add({.call = Call::kOpen, .path = kHeronUart, .error = EACCES, .after = 2});
    const StartUpResult result = host.start();
    EXPECT_EQ(result.error, StartUpError::kLink);
    EXPECT_EQ(result.text, "the MCU link could not be opened again after the update");
    EXPECT_EQ(host.mcuFirmware(), McuFirmware::kLinkLost);
    EXPECT_EQ(config_info->mcu_fd, -1);
    EXPECT_EQ(board.mcuChip().version(), "V1.0.0");
}

TEST_F(HostMcuUpdate, WithoutTheJobNothingIsAskedOrProgrammed) {
    ASSERT_TRUE(host.start({.updateMcu = false}).ok());
    EXPECT_THAT(board.trace().events(EventKind::kUartTx), IsEmpty());
    EXPECT_EQ(versionThroughTheService(), "V0.9.0");
}

}  // namespace
}  // namespace quil::host
