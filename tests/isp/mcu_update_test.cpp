// The decision whether to program the MCU, and the update flow around the programming.
#include "isp/mcu_update.h"

#include <errno.h>
#include <fcntl.h>

#include <chrono>

#include "tests/isp/isp_test.h"

namespace quil::tests {

using board::Call;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

constexpr char kVersionProperty[] = "persist.quil.mcu_fw_version";
constexpr char kUnknownChip[] = "a chip without a boot loader";  // longer than its field
const Bytes kRequest = {0x55, 0xBB, 0x00, 0x00, 0x00, 0x01, 0x07, 0x00, 0x19, 0x00, 0x41, 0x01,
                        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00,
                        0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x01, 0x00, 0x78, 0x01};

// An answer of 63 bytes with the version text at offsets 46 to 60.
Bytes answerWith(const std::string& version) {
    Bytes answer(46, 0x2E);
    answer.insert(answer.end(), version.begin(), version.end());
    answer.resize(61, 0x00);
    answer.insert(answer.end(), {0x2E, 0x2E});
    return answer;
}

template <size_t kSize>
void assign(char (&field)[kSize], const std::string& text) {
    memset(field, 0, kSize);
    memcpy(field, text.data(), std::min(text.size(), kSize));
}

}  // namespace

class McuUpdate : public IspTest {
  protected:
    McuUpdate() {
        mcu.followLine();
        openLink();
        assign(config_info->mcu_serial, kUnknownChip);
        assign(config_info->mcu_fw_path, kImagePath);
        assign(config_info->mcu_fw_version, "V1.2.3");
        writeImage(imageOf(1));
        setLogLevel("D");
    }
    ~McuUpdate() override {
        if (isOpen(config_info->mcu_fd)) close(config_info->mcu_fd);
    }

    int link() const { return config_info->mcu_fd; }
    std::string linkText() const { return std::to_string(link()); }
    void answerVersion(const std::string& version) { mcu.expect(kRequest, answerWith(version)); }
    void failWrites() {
        board.faults().add({.call = Call::kWrite, .path = kHeronUart, .error = EIO, .times = -1});
    }
    void useGd32() { assign(config_info->mcu_serial, "gd32f470"); }
    // Expects a successful programming run of one byte.
    void expectSession() {
        mcu.expect({0x7F}, kAnswerAck);
        mcu.expect({0x06, 0xF9}, kGd32F470Pid);
        mcu.expect({0x44, 0xBB}, kAnswerAck);
        mcu.expect({0x00, 0x00, 0x00, 0x00, 0x00}, kAnswerAck);
        expectBlock({0x08, 0x00, 0x00, 0x00, 0x08}, imageOf(1));
    }
    std::string property() { return board.properties().get(kVersionProperty); }
};

// The link.

TEST_F(McuUpdate, SerialInitOpensTheLinkBlockingAtItsRate) {
    setLogLevel("I");
    const int port = serialInit();
    ASSERT_GE(port, 0);
    EXPECT_EQ(fcntl(port, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(board.mcuUart().baud(), 115200);
    EXPECT_EQ(board.mcuUart().mode(), "8N1");
    EXPECT_THAT(said(),
                ElementsAre("I serialInit: open /dev/ttyS3 _fd = " + std::to_string(port) + "\n"));
    close(port);
}

TEST_F(McuUpdate, SerialInitTakesTheConfiguredRate) {
    config_info->mcu_baud_rate = 57600;
    const int port = serialInit();
    EXPECT_EQ(board.mcuUart().baud(), 57600);
    close(port);
}

class McuUpdateNoPath : public McuUpdate, public testing::WithParamInterface<const char*> {};

TEST_P(McuUpdateNoPath, IsReportedBySerialInit) {
    assign(config_info->mcu_uart_path, GetParam());
    EXPECT_EQ(serialInit(), -1);
    EXPECT_THAT(said(), ElementsAre("E serialInit:config_info->mcu_uart_path is not set, need to "
                                    "check ini file.\n"));
}

INSTANTIATE_TEST_SUITE_P(Each, McuUpdateNoPath, testing::Values("", "UNDEF", "/dev/UNDEFINED"));

TEST_F(McuUpdate, SerialInitWithoutAConfigurationHasNoPath) {
    config_info_t* const parsed = std::exchange(config_info, nullptr);
    EXPECT_EQ(serialInit(), -1);
    config_info = parsed;
    EXPECT_THAT(said(), ElementsAre("E serialInit:config_info->mcu_uart_path is not set, need to "
                                    "check ini file.\n"));
}

TEST_F(McuUpdate, SerialInitOfAMissingDeviceFailsAtDebugLevel) {
    assign(config_info->mcu_uart_path, "/dev/ttyS99");
    EXPECT_EQ(standardOutputOf([] { EXPECT_EQ(serialInit(), -1); }),
              "uart open failed /dev/ttyS99 \n");
    EXPECT_THAT(said(), ElementsAre("D serialInit: init /dev/ttyS99 failed, _fd = -1\n"));
}

TEST_F(McuUpdate, PathThatFillsItsFieldIsReadNoFurther) {
    assign(config_info->mcu_uart_path, "/dev/ttyS" + std::string(119, '9'));
    config_info->mcu_baud_rate = 0x39393939;  // the next field, which reads as more digits
    EXPECT_EQ(standardOutputOf([] { EXPECT_EQ(serialInit(), -1); }),
              "uart open failed /dev/ttyS" + std::string(119, '9') + " \n");
}

// The version.

TEST_F(McuUpdate, VersionIsAskedForInTheseBytesAndReadAfterHalfASecond) {
    answerVersion("V1.2.3");
    board.trace().clear();
    char version[92] = "V0.0.0.0";
    EXPECT_EQ(getMcuFwVersion(link(), version), 0);
    EXPECT_STREQ(version, "V1.2.3");
    EXPECT_THAT(done(true), ElementsAre("send " + hexOf(kRequest), "pause 500 ms"));
    EXPECT_THAT(said(),
                ElementsAre("D getMcuFwVersion: mcu_fd = " + linkText() + "\n",
                            "D getMcuFwVersion: mcu_fd = " + linkText() + ", data received(63):\n",
                            "D mcuIcVer = V1.2.3\n"));
}

TEST_F(McuUpdate, VersionRequestTakesNoLabel) {
    answerVersion("V1.2.3");
    g_n_lable = 41;
    char version[92] = "V0.0.0.0";
    getMcuFwVersion(link(), version);
    EXPECT_EQ(g_n_lable, 41);
}

TEST_F(McuUpdate, VersionOf15CharactersKeepsTheCallersByteBehindIt) {
    answerVersion("V12.345.678-abc");
    char version[92] = {};
    memset(version, 'x', 20);
    EXPECT_EQ(getMcuFwVersion(link(), version), 0);
    EXPECT_STREQ(version, "V12.345.678-abcxxxxx");
    EXPECT_EQ(said().back(), "D mcuIcVer = V12.345.678-abc\n");
}

TEST_F(McuUpdate, LongerVersionIsCutAt15Characters) {
    mcu.expect(kRequest, Bytes(46, 0x2E) + Bytes(40, 'v'));
    char version[92] = {};
    EXPECT_EQ(getMcuFwVersion(link(), version), 0);
    EXPECT_STREQ(version, std::string(15, 'v').c_str());
}

TEST_F(McuUpdate, SilentMcuHasAnEmptyVersion) {
    mcu.expect(kRequest);
    char version[92] = "V0.0.0.0";
    EXPECT_EQ(getMcuFwVersion(link(), version), 0);
    EXPECT_EQ(std::string(version, 15), std::string(15, '\0'));
    EXPECT_THAT(said(),
                ElementsAre("D getMcuFwVersion: mcu_fd = " + linkText() + "\n",
                            "D getMcuFwVersion: mcu_fd = " + linkText() + ", data received(0):\n",
                            "D mcuIcVer = \n"));
}

TEST_F(McuUpdate, AnswerThatEndsInsideTheVersionCutsIt) {
    mcu.expect(kRequest, Bytes(46, 0x2E) + Bytes{'V', '1', '.', '2'});
    char version[92] = "V0.0.0.0";
    EXPECT_EQ(getMcuFwVersion(link(), version), 0);
    EXPECT_STREQ(version, "V1.2");
}

TEST_F(McuUpdate, AnswerThatFillsItsBufferLeavesRoomForItsEnd) {
    mcu.expect(kRequest, Bytes(2000, 'v'));
    char version[92] = {};
    EXPECT_EQ(getMcuFwVersion(link(), version), 0);
    EXPECT_THAT(said()[1], testing::EndsWith("data received(1024):\n"));
    EXPECT_STREQ(version, std::string(15, 'v').c_str());
}

TEST_F(McuUpdate, FailedReadIsAnEmptyVersion) {
    mcu.expect(kRequest, answerWith("V1.2.3"));
    board.faults().add({.call = Call::kRead, .path = kHeronUart, .error = EIO});
    char version[92] = "V0.0.0.0";
    EXPECT_EQ(getMcuFwVersion(link(), version), 0);
    EXPECT_STREQ(version, "");
    EXPECT_THAT(said()[1], testing::EndsWith("data received(4294967295):\n"));
}

TEST_F(McuUpdate, RequestThatCannotBeWrittenGivesMinus1) {
    failWrites();
    char version[92] = "V0.0.0.0";
    EXPECT_EQ(getMcuFwVersion(link(), version), -1);
    EXPECT_STREQ(version, "V0.0.0.0");
    EXPECT_THAT(said(), ElementsAre("D getMcuFwVersion: mcu_fd = " + linkText() + "\n",
                                    "D getMcuFwVersion: write request error\n"));
}

TEST_F(McuUpdate, VersionWithoutABufferGivesMinus1AndAsksNothing) {
    EXPECT_EQ(getMcuFwVersion(link(), nullptr), -1);
    EXPECT_THAT(said(), ElementsAre("E getMcuFwVersion: mcuIcVer is NULL\n"));
    EXPECT_THAT(board.mcuUart().sentByHost(), IsEmpty());
}

// The check.

TEST_F(McuUpdate, ShippedVersionNeedsNoUpdate) {
    answerVersion("V1.2.3");
    EXPECT_EQ(checkMcuFwVersion(link()), 0);
    EXPECT_EQ(said().front(), "D checkMcuFwVersion: is called\n");
    EXPECT_EQ(said().back(),
              "D checkMcuFwVersion: mcuBinVer(V1.2.3) is equal to mcuIcVer(V1.2.3), no need update "
              "FW\n");
    EXPECT_EQ(said().size(), 5U);
}

class McuUpdateVersion : public McuUpdate, public testing::WithParamInterface<const char*> {};

TEST_P(McuUpdateVersion, IsNotTheShippedOne) {
    answerVersion(GetParam());
    EXPECT_EQ(checkMcuFwVersion(link()), 1);
    EXPECT_EQ(said().back(),
              std::string("D checkMcuFwVersion: mcuBinVer(V1.2.3) is not equal to mcuIcVer(") +
                  GetParam() + "), need update FW\n");
}

INSTANTIATE_TEST_SUITE_P(Each, McuUpdateVersion,
                         testing::Values("V1.2.4", "v1.2.3", "V1.2.3 ", "V1.2", "V1.2.30", ""));

TEST_F(McuUpdate, SilentMcuNeedsAnUpdate) {
    mcu.expect(kRequest);
    EXPECT_EQ(checkMcuFwVersion(link()), 1);
    EXPECT_EQ(
        said().back(),
        "D checkMcuFwVersion: mcuBinVer(V1.2.3) is not equal to mcuIcVer(), need update FW\n");
}

TEST_F(McuUpdate, StoredVersionStandsForAnMcuThatCannotBeAsked) {
    failWrites();
    board.properties().set(kVersionProperty, "V1.2.3");
    EXPECT_EQ(checkMcuFwVersion(link()), 0);
    EXPECT_THAT(said(), ElementsAre("D checkMcuFwVersion: is called\n",
                                    "D getMcuFwVersion: mcu_fd = " + linkText() + "\n",
                                    "D getMcuFwVersion: write request error\n",
                                    "D checkMcuFwVersion: getMcuFwVersion failed\n",
                                    "D checkMcuFwVersion: mcuBinVer(V1.2.3) is equal to "
                                    "mcuIcVer(V1.2.3), no need update FW\n"));
}

TEST_F(McuUpdate, StoredVersionIsV0WhereThereIsNone) {
    failWrites();
    EXPECT_EQ(checkMcuFwVersion(link()), 1);
    EXPECT_EQ(said().back(),
              "D checkMcuFwVersion: mcuBinVer(V1.2.3) is not equal to mcuIcVer(V0), need update "
              "FW\n");
}

TEST_F(McuUpdate, StoredVersionIsNotAskedForWhileTheMcuIsOnlySilent) {
    mcu.expect(kRequest);
    board.properties().set(kVersionProperty, "V1.2.3");
    EXPECT_EQ(checkMcuFwVersion(link()), 1);
}

TEST_F(McuUpdate, LinkThatIsNotOpenCannotBeAsked) {
    board.properties().set(kVersionProperty, "V1.2.3");
    EXPECT_EQ(checkMcuFwVersion(-1), 0);
}

TEST_F(McuUpdate, CheckWithoutAConfigurationComparesWithAnEmptyVersion) {
    mcu.expect(kRequest);
    const int port = link();
    config_info_t* const parsed = std::exchange(config_info, nullptr);
    EXPECT_EQ(checkMcuFwVersion(port), 0);
    config_info = parsed;
}

// The programming.

TEST_F(McuUpdate, MissingImageIsReportedBeforeTheMcuIsTouched) {
    assign(config_info->mcu_fw_path, "/vendor/firmware/none.bin");
    board.trace().clear();
    const auto errors = standardErrorOf([] { EXPECT_EQ(doMcuUpdateByIsp(), -1); });
    EXPECT_EQ(errors, "access: No such file or directory\n");
    EXPECT_THAT(said(), ElementsAre("E doMcuUpdateByIsp: /vendor/firmware/none.bin not exist\n"));
    EXPECT_THAT(done(), IsEmpty());
    EXPECT_EQ(property(), "");
}

TEST_F(McuUpdate, ImageThatCannotBeLookedAtIsReportedWithItsReason) {
    board.faults().add({.call = Call::kAccess, .path = kImagePath, .error = EACCES});
    const auto errors = standardErrorOf([] { EXPECT_EQ(doMcuUpdateByIsp(), -1); });
    EXPECT_EQ(errors, "access: Permission denied\n");
}

TEST_F(McuUpdate, SuccessIsRemembered) {
    EXPECT_EQ(doMcuUpdateByIsp(), 0);
    EXPECT_THAT(said(),
                ElementsAre("D doMcuUpdateByIsp: /vendor/firmware/mcu_test.bin exist\n",
                            "I mcu_isp_fw_update: file_path =/vendor/firmware/mcu_test.bin, "
                            "uart_path = /dev/ttyS3, chip_serial = a chip without a\n",
                            "D doMcuUpdateByIsp: mcu_isp_fw_update success\n",
                            "D doMcuUpdateByIsp: set prop persist.quil.mcu_fw_version = V1.2.3\n"));
    EXPECT_EQ(property(), "V1.2.3");
}

TEST_F(McuUpdate, FiveFailedAttemptsFollowEachOtherAtOnceAndChangeNothing) {
    setLogLevel("E");
    useGd32();
    board.properties().set(kVersionProperty, "V1.0.0");
    board.faults().add({.call = Call::kOpen, .path = kHeronUart, .error = EIO, .times = -1});
    const auto start = board.now();
    EXPECT_EQ(doMcuUpdateByIsp(), -1);
    EXPECT_EQ(board.now() - start, 5 * milliseconds(500 + 500 + 500));  // the sessions' own pauses
    Lines expected;
    for (int i = 0; i < 5; ++i) {
        expected.insert(expected.end(),
                        {"E mcu_serial_init: Open serial port /dev/ttyS3 failed.\n",
                         "E mcu_isp_fw_update: mcu_tool_isp_task failed, ret = 15\n",
                         "E doMcuUpdateByIsp: mcu_isp_fw_update failed\n"});
    }
    EXPECT_THAT(said(), ElementsAreArray(expected));
    EXPECT_EQ(property(), "V1.0.0");
}

TEST_F(McuUpdate, FifthFailureIsFollowedByADebugLine) {
    assign(config_info->mcu_serial, "");
    EXPECT_EQ(doMcuUpdateByIsp(), -1);
    const Lines lines = said();
    ASSERT_EQ(lines.size(), 1 + 5 * 2 + 1U);
    EXPECT_EQ(lines[1],
              "E mcu_isp_fw_update: invalid chip_serial is NULL, need to check ini file\n");
    EXPECT_EQ(lines[10], "E doMcuUpdateByIsp: mcu_isp_fw_update failed\n");
    EXPECT_EQ(lines[11],
              "D The maximum retry times has been reached, and the program failed to execute "
              "successfully\n");
}

TEST_F(McuUpdate, FifthAttemptIsEarlyEnough) {
    setLogLevel("E");
    useGd32();
    board.faults().add({.call = Call::kOpen, .path = kHeronUart, .error = EIO, .times = 4});
    expectSession();
    EXPECT_EQ(doMcuUpdateByIsp(), 0);
    int failures = 0;
    for (const std::string& line : said()) {
        if (line == "E doMcuUpdateByIsp: mcu_isp_fw_update failed\n") ++failures;
    }
    EXPECT_EQ(failures, 4);
    EXPECT_EQ(property(), "V1.2.3");
}

TEST_F(McuUpdate, ProgrammingWithoutAConfigurationHasNoImage) {
    config_info_t* const parsed = std::exchange(config_info, nullptr);
    standardErrorOf([] { EXPECT_EQ(doMcuUpdateByIsp(), -1); });
    config_info = parsed;
    EXPECT_THAT(said(), ElementsAre("E doMcuUpdateByIsp:  not exist\n"));
}

TEST_F(McuUpdate, TextsThatFillTheirFieldsAreReadNoFurther) {
    assign(config_info->mcu_serial, std::string(16, 's'));
    assign(config_info->mcu_fw_version, std::string(64, 'v'));
    EXPECT_EQ(doMcuUpdateByIsp(), 0);
    EXPECT_THAT(said()[1], testing::EndsWith("chip_serial = " + std::string(16, 's') + "\n"));
    EXPECT_EQ(property(), std::string(64, 'v'));
}

// The whole flow.

TEST_F(McuUpdate, ShippedVersionEndsTheFlowWithAnErrorLineAndMinus1) {
    setLogLevel("E");
    answerVersion("V1.2.3");
    int port = link();
    EXPECT_EQ(mcuFwUpdate(&port), -1);
    EXPECT_EQ(port, link());
    EXPECT_THAT(said(), ElementsAre("E mcuFwUpdate: do not need upgrade FW\n"));
}

TEST_F(McuUpdate, OlderMcuIsProgrammedAndItsLinkOpenedAgain) {
    useGd32();
    answerVersion("V1.2.2");
    expectSession();
    board.trace().clear();
    int port = link();
    EXPECT_EQ(mcuFwUpdate(&port), 0);
    EXPECT_NE(port, link());
    EXPECT_TRUE(isOpen(port));
    EXPECT_TRUE(isOpen(link())) << "the old descriptor is its owner's to close";
    EXPECT_EQ(board.mcuUart().mode(), "8N1");
    EXPECT_EQ(property(), "V1.2.3");
    const Lines ask = {"pause 500 ms"}, reopen = {"open"};
    EXPECT_THAT(done(), ElementsAreArray(ask + kEntry + kErasePause + kExit + reopen));
    const Lines lines = said();
    EXPECT_EQ(lines.front(), "D mcuFwUpdate: is called\n");
    EXPECT_EQ(lines[1], "D checkMcuFwVersion: is called\n");
    EXPECT_EQ(lines.back(), "I serialInit: open /dev/ttyS3 _fd = " + std::to_string(port) + "\n");
    close(port);
}

TEST_F(McuUpdate, SilentMcuIsProgrammed) {
    setLogLevel("E");
    useGd32();
    mcu.expect(kRequest);
    expectSession();
    int port = link();
    EXPECT_EQ(mcuFwUpdate(&port), 0);
    EXPECT_THAT(said(), IsEmpty());
    close(port);
}

TEST_F(McuUpdate, FailedProgrammingLeavesTheDescriptorAsItWas) {
    setLogLevel("E");
    answerVersion("V1.2.2");
    assign(config_info->mcu_serial, "");
    int port = link();
    EXPECT_EQ(mcuFwUpdate(&port), -1);
    EXPECT_EQ(port, link());
    EXPECT_EQ(said().size(), 11U);
    EXPECT_EQ(said().back(), "E mcuFwUpdate: doMcuUpdate failed\n");
}

TEST_F(McuUpdate, LinkThatCannotBeOpenedAgainIsStoredAsMinus1) {
    setLogLevel("E");
    answerVersion("V1.2.2");
    board.faults().add({.call = Call::kOpen, .path = kHeronUart, .error = EIO, .times = -1});
    int port = link();
    EXPECT_EQ(standardOutputOf([&] { EXPECT_EQ(mcuFwUpdate(&port), -1); }),
              "uart open failed /dev/ttyS3 \n");
    EXPECT_EQ(port, -1);
    EXPECT_THAT(said(), ElementsAre("E mcuFwUpdate: serialInit failed\n"));
    EXPECT_EQ(property(), "V1.2.3");
}

TEST_F(McuUpdate, FlowWithoutADescriptorToChangeEndsAtOnce) {
    setLogLevel("E");
    EXPECT_EQ(mcuFwUpdate(nullptr), -1);
    EXPECT_THAT(said(), ElementsAre("E mcuFwUpdate: fd is NULL\n"));
}

TEST_F(McuUpdate, FlowLeavesTheUpdateFlagToItsCaller) {
    setLogLevel("E");
    answerVersion("V1.2.2");
    config_info->fw_updating = 7;
    int port = link();
    EXPECT_EQ(mcuFwUpdate(&port), 0);
    EXPECT_EQ(config_info->fw_updating, 7);
    EXPECT_EQ(config_info->mcu_fd, link());
    close(port);
}

}  // namespace quil::tests
