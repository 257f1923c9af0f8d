// The text that `lshal debug` shows.
#include <cutils/native_handle.h>
#include <fcntl.h>

#include <thread>

#include "common/version.h"
#include "testing/build.h"
#include "testing/debug_text.h"
#include "testing/files.h"
#include "testing/library_test.h"

namespace quil::tests {

using android::hardware::hidl_handle;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class DebugDump : public LibraryTest {
  protected:
    std::string dump() { return debugTextOf(*service); }

    android::sp<OpenService> service = new OpenService;
};

TEST_F(DebugDump, StartsWithTheInterfaceAndTheVersionOfTheLibrary) {
    EXPECT_THAT(dump(), StartsWith("quil.hardware.quilservicemanager@1.0 1.0.0\n"));
    const std::string text = contentOf(QUIL_SOURCE_DIR "/CMakeLists.txt");
    EXPECT_THAT(text, HasSubstr(std::string("VERSION ") + common::kVersion + " "));
}

TEST_F(DebugDump, BeforeTheParseSaysSoAndGoesOn) {
    const std::string text = dump();
    EXPECT_THAT(text, HasSubstr("configuration: none parsed\n"));
    EXPECT_THAT(text, HasSubstr("callbacks = 0\n"));
}

TEST_F(DebugDump, ShowsTheConfigurationAndTheFirmwareFlags) {
    openLink();
    config_info->fw_updating = 1;
    const std::string text = dump();
    EXPECT_THAT(text, HasSubstr("  product = Heron\n"));
    EXPECT_THAT(text, HasSubstr("  mcu_uart_path = /dev/ttyS3\n"));
    EXPECT_THAT(
        text, HasSubstr("fw_updating = 1, mcu_fd = " + std::to_string(config_info->mcu_fd) + "\n"));
}

TEST_F(DebugDump, FieldWithoutATerminatorEndsAtItsCapacity) {
    openLink();
    memset(config_info->product, 'x', sizeof(config_info->product));
    EXPECT_THAT(dump(), HasSubstr("  product = " + std::string(64, 'x') + "\n"));
}

TEST_F(DebugDump, CountsRequestsByTypeTimeOutsAndTheLastLabel) {
    openLink();
    board.mcu().setSilent(true);
    service->getBytes({1, 0, 0, 0, 0, 0, 0, 0});
    service->getBytes({0xF0, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0});
    service->setBytes({0xF4, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0});
    service->getBytes({0xF2, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0});
    service->getBytes({1});
    const std::string text = dump();
    EXPECT_THAT(text, HasSubstr("requests: mcu = 1, power control = 1, self-test = 1, unknown = 1, "
                                "refused = 1\n"));
    EXPECT_THAT(text, HasSubstr("time-outs = 1, last label = 1\n"));
}

TEST_F(DebugDump, AnswersWhileARequestWaits) {
    openLink();
    board.mcu().setSilent(true);
    std::string text;
    std::thread looker([&] {
        board.runFor(std::chrono::seconds(1));
        text = dump();
    });
    service->getBytes({1, 0, 0, 0, 0, 0, 0, 0});
    looker.join();
    EXPECT_THAT(text, HasSubstr("mcu = 1, "));
    EXPECT_THAT(text, HasSubstr("time-outs = 0, last label = 1\n"));
}

TEST_F(DebugDump, DescriptorThatTakesNothingEndsIt) {
    native_handle_t* full = native_handle_create(1, 0);
    full->data[0] = open("/dev/full", O_WRONLY | O_CLOEXEC);
    EXPECT_TRUE(service->debug(hidl_handle(full), {}).isOk());
    native_handle_close(full);
    native_handle_delete(full);
}

TEST_F(DebugDump, WithoutADescriptorIsNothing) {
    EXPECT_TRUE(service->debug(hidl_handle(), {}).isOk());
    native_handle_t* empty = native_handle_create(0, 0);
    EXPECT_TRUE(service->debug(hidl_handle(empty), {}).isOk());
    native_handle_delete(empty);
}

}  // namespace quil::tests
