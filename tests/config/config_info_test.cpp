#include "config/config_info.h"

#include <unistd.h>

#include "platform/vendor/include/quil_bi.h"
#include "testing/build.h"
#include "testing/library_test.h"

namespace quil::tests {

using board::Call;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr char kProductFile[] = "/vendor/etc/product.ini";

// A file with every key set and no error; each test changes the keys that it is about.
constexpr char kWholeFile[] =
    "[product]\nproduct = Testbird\n"
    "[block]\nfpga_parameter = params\nhex_parameter = hexes\n"
    "[fpga]\nfpga_fw_path = /vendor/firmware/f.bin\nfpga_drv_path = /dev/fpga\n"
    "fpga_fw_version = F1\nfpga_control_gpio = 11\nfpga_config_gpio = 12\nfpga_done_gpio = 13\n"
    "[mcu]\nmcu_fw_path = /vendor/firmware/m.bin\nmcu_fw_version = M1\nmcu_type = 2\n"
    "mcu_serial = ttyS3\nmcu_sock_path = /dev/socket/mcu\nmcu_uart_path = /dev/ttyS3\n"
    "mcu_baud_rate = 115200\n"
    "[mcu_wdt]\nmcu_wdt_switch = 21\nmcu_wdt_pulse = 22\nmcu_wdt_startup_type = 23\n"
    "[self_test]\nself_test_items = 1,2\naudio_num = 3\n";

std::string with(const std::string& line, const std::string& replacement) {
    std::string text = kWholeFile;
    const size_t at = text.find(line);
    EXPECT_NE(at, std::string::npos) << line;
    return text.replace(at, line.size(), replacement);
}

std::string message(const std::string& text) { return "parseConfigInfo" + text; }

}  // namespace

class ConfigInfo : public LibraryTest {
  protected:
    // Parses `text` as the product file and returns the error lines.
    std::vector<std::string> errorsOf(const std::string& text) {
        board.writeFile(kProductFile, text);
        EXPECT_EQ(parseConfigInfo(), 0);
        return board.log(ANDROID_LOG_ERROR);
    }
};

TEST_F(ConfigInfo, RecordHasTheBindingOffsets) {
    const std::pair<size_t, size_t> rows[] = {
        {offsetof(config_info_t, product), 0},
        {offsetof(config_info_t, mod_id), 64},
        {offsetof(config_info_t, mcu_fd), 68},
        {offsetof(config_info_t, fw_updating), 72},
        {offsetof(config_info_t, mcu_type), 76},
        {offsetof(config_info_t, mcu_serial), 80},
        {offsetof(config_info_t, mcu_fw_path), 96},
        {offsetof(config_info_t, mcu_fw_version), 224},
        {offsetof(config_info_t, mcu_uart_path), 288},
        {offsetof(config_info_t, mcu_baud_rate), 416},
        {offsetof(config_info_t, mcu_wdt_switch), 420},
        {offsetof(config_info_t, mcu_wdt_pulse), 424},
        {offsetof(config_info_t, mcu_wdt_startup_type), 428},
        {offsetof(config_info_t, mcu_sock_path), 432},
        {offsetof(config_info_t, fpga_control_gpio), 560},
        {offsetof(config_info_t, fpga_config_gpio), 564},
        {offsetof(config_info_t, fpga_done_gpio), 568},
        {offsetof(config_info_t, fpga_drv_path), 572},
        {offsetof(config_info_t, fpga_fw_path), 700},
        {offsetof(config_info_t, fpga_fw_version), 828},
        {offsetof(config_info_t, fpga_parameter), 892},
        {offsetof(config_info_t, hex_parameter), 956},
        {offsetof(config_info_t, self_test_items), 1020},
        {offsetof(config_info_t, audio_num), 1084},
        {sizeof(config_info_t), 1088},
    };
    for (const auto& [actual, expected] : rows) EXPECT_EQ(actual, expected);
}

TEST_F(ConfigInfo, WholeFileFillsEveryFieldWithoutAWord) {
    board.productInformation().setModuleId("4711");
    EXPECT_THAT(errorsOf(kWholeFile), IsEmpty());
    EXPECT_THAT(board.log(), IsEmpty());
    const config_info_t& info = *config_info;
    EXPECT_STREQ(info.product, "Testbird");
    EXPECT_EQ(info.mod_id, 4711);
    EXPECT_EQ(info.mcu_fd, 0);
    EXPECT_EQ(info.fw_updating, 0);
    EXPECT_EQ(info.mcu_type, 2);
    EXPECT_STREQ(info.mcu_serial, "ttyS3");
    EXPECT_STREQ(info.mcu_fw_path, "/vendor/firmware/m.bin");
    EXPECT_STREQ(info.mcu_fw_version, "M1");
    EXPECT_STREQ(info.mcu_uart_path, "/dev/ttyS3");
    EXPECT_EQ(info.mcu_baud_rate, 115200);
    EXPECT_EQ(info.mcu_wdt_switch, 21);
    EXPECT_EQ(info.mcu_wdt_pulse, 22);
    EXPECT_EQ(info.mcu_wdt_startup_type, 23);
    EXPECT_STREQ(info.mcu_sock_path, "/dev/socket/mcu");
    EXPECT_EQ(info.fpga_control_gpio, 11);
    EXPECT_EQ(info.fpga_config_gpio, 12);
    EXPECT_EQ(info.fpga_done_gpio, 13);
    EXPECT_STREQ(info.fpga_drv_path, "/dev/fpga");
    EXPECT_STREQ(info.fpga_fw_path, "/vendor/firmware/f.bin");
    EXPECT_STREQ(info.fpga_fw_version, "F1");
    EXPECT_STREQ(info.fpga_parameter, "params");
    EXPECT_STREQ(info.hex_parameter, "hexes");
    EXPECT_STREQ(info.self_test_items, "1,2");
    EXPECT_EQ(info.audio_num, 3);
}

TEST_F(ConfigInfo, DebugLevelSaysCalledModuleAndSummaryInThatOrder) {
    setLogLevel("D");
    board.productInformation().setModuleId("7");
    errorsOf(kWholeFile);
    EXPECT_THAT(
        board.log(),
        ElementsAre(
            "parseConfigInfo: is called\n", "parseConfigInfo: mod_id: 7\n",
            "parseConfigInfo: product_name = Testbird, mcu_fw_path = /vendor/firmware/m.bin, "
            "mcu_fw_version = M1, fpga_fw_path = /vendor/firmware/f.bin, fpga_drv_path = "
            "/dev/fpga, fpga_fw_version = F1, mcu_type = 2, mcu_serial = ttyS3, mcu_sock_path = "
            "/dev/socket/mcu, mcu_uart_path = /dev/ttyS3,mcu_baud_rate = 115200, "
            "mcu_switch_gpio_id = 21, mcu_pulse_gpio_id = 22, mcu_startup_gpio_id = 23, "
            "fpga_control_gpio_id = 11, fpga_config_gpio_id = 12, fpga_done_gpio_id = 13, mod_id = "
            "7, self_test_items = 1,2\n"));
    const auto lines = board.logLines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_DEBUG);
    EXPECT_EQ(lines[1].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(lines[2].priority, ANDROID_LOG_DEBUG);
    EXPECT_EQ(lines[0].tag, "quil_system_hidl_service");
}

TEST_F(ConfigInfo, EmptyFileLogsEveryKeyInTheOrderInWhichTheyAreRead) {
    board.iniReader().setMissingInteger(0);
    EXPECT_THAT(
        errorsOf(""),
        ElementsAre(
            "parseConfigInfo: product is NULL\n", "parseConfigInfo: fpga_drv_path is NULL\n",
            "parseConfigInfo: fpga_fw_version is NULL\n", "parseConfigInfo: fpga_fw_path is NULL\n",
            "parseConfigInfo: fpga_drv_path is NULL\n",
            "parseConfigInfo: fpga_fw_version is NULL\n", "parseConfigInfo: mcu_fw_path is NULL\n",
            "parseConfigInfo: mcu_fw_version is NULL\n", "parseConfigInfo: mcu_serial is NULL\n",
            "parseConfigInfo: mcu_sock_path is NULL\n",
            "parseConfigInfo:config_info->mcu_sock_path is not set, need to check ini file.\n",
            "parseConfigInfo: mcu_uart_path is NULL\n",
            "parseConfigInfo:config_info->mcu_uart_path is not set, need to check ini file.\n",
            "parseConfigInfo: self_test_items is NULL\n",
            "parseConfigInfo: invalid mcu_switch_gpio_id = 0\n",
            "parseConfigInfo: invalid mcu_pulse_gpio_id = 0\n",
            "parseConfigInfo: invalid mcu_startup_gpio_id = 0\n",
            "parseConfigInfo: invalid fpga_control_gpio_id = 0, use default 999\n",
            "parseConfigInfo: invalid fpga_config_gpio_id = 0, use default 999\n",
            "parseConfigInfo: invalid fpga_done_gpio_id = 0, use default 999\n",
            "parseConfigInfo: invalid audio_num = 0, use default 0\n"));
    EXPECT_STREQ(config_info->product, "");
    EXPECT_EQ(config_info->mcu_type, 0);
    EXPECT_EQ(config_info->mcu_baud_rate, 0);
    EXPECT_EQ(config_info->fpga_control_gpio, 999);
    EXPECT_EQ(config_info->fpga_config_gpio, 999);
    EXPECT_EQ(config_info->fpga_done_gpio, 999);
    EXPECT_EQ(config_info->mcu_wdt_switch, 0);
    EXPECT_EQ(config_info->audio_num, 0);
}

TEST_F(ConfigInfo, IniInterfaceThatAnswersMinus1MakesTheTypeTheDefaultAndKeepsTheWatchdog) {
    board.iniReader().setMissingInteger(-1);
    const auto errors = errorsOf("");
    EXPECT_THAT(errors, Contains(message(": invalid mcu_type = -1, use default 1\n")));
    EXPECT_THAT(errors, Contains(message(": invalid audio_num = -1, use default 0\n")));
    EXPECT_EQ(config_info->mcu_type, 1);
    EXPECT_EQ(config_info->mcu_baud_rate, -1);
    EXPECT_EQ(config_info->mcu_wdt_switch, -1);
    EXPECT_EQ(config_info->mcu_wdt_pulse, -1);
    EXPECT_EQ(config_info->mcu_wdt_startup_type, -1);
    EXPECT_EQ(config_info->fpga_done_gpio, 999);
    EXPECT_EQ(config_info->audio_num, 0);
}

struct MissingKey {
    const char* line;
    const char* text;
};
void PrintTo(const MissingKey& row, std::ostream* out) {
    *out << std::string_view(row.line, strcspn(row.line, " "));
}
class ConfigInfoKey : public ConfigInfo, public testing::WithParamInterface<MissingKey> {};

TEST_P(ConfigInfoKey, ThatIsMissingLogsItsOwnMessageFirst) {
    const auto errors = errorsOf(with(GetParam().line, ""));
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors[0], message(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    OfText, ConfigInfoKey,
    testing::Values(MissingKey{"product = Testbird\n", ": product is NULL\n"},
                    MissingKey{"fpga_parameter = params\n", ": fpga_drv_path is NULL\n"},
                    MissingKey{"hex_parameter = hexes\n", ": fpga_fw_version is NULL\n"},
                    MissingKey{"fpga_fw_path = /vendor/firmware/f.bin\n",
                               ": fpga_fw_path is NULL\n"},
                    MissingKey{"fpga_drv_path = /dev/fpga\n", ": fpga_drv_path is NULL\n"},
                    MissingKey{"fpga_fw_version = F1\n", ": fpga_fw_version is NULL\n"},
                    MissingKey{"mcu_fw_path = /vendor/firmware/m.bin\n", ": mcu_fw_path is NULL\n"},
                    MissingKey{"mcu_fw_version = M1\n", ": mcu_fw_version is NULL\n"},
                    MissingKey{"mcu_serial = ttyS3\n", ": mcu_serial is NULL\n"},
                    MissingKey{"mcu_sock_path = /dev/socket/mcu\n", ": mcu_sock_path is NULL\n"},
                    MissingKey{"mcu_uart_path = /dev/ttyS3\n", ": mcu_uart_path is NULL\n"},
                    MissingKey{"self_test_items = 1,2\n", ": self_test_items is NULL\n"}));

TEST_F(ConfigInfo, McuTypeOf0IsKept) {
    EXPECT_THAT(errorsOf(with("mcu_type = 2", "mcu_type = 0")), IsEmpty());
    EXPECT_EQ(config_info->mcu_type, 0);
}

TEST_F(ConfigInfo, NegativeMcuTypeBecomes1) {
    EXPECT_THAT(errorsOf(with("mcu_type = 2", "mcu_type = -3")),
                ElementsAre(message(": invalid mcu_type = -3, use default 1\n")));
    EXPECT_EQ(config_info->mcu_type, 1);
}

TEST_F(ConfigInfo, GpioNumbersBelow1Become999) {
    EXPECT_THAT(errorsOf(with("fpga_done_gpio = 13", "fpga_done_gpio = 0")),
                ElementsAre(message(": invalid fpga_done_gpio_id = 0, use default 999\n")));
    EXPECT_EQ(config_info->fpga_done_gpio, 999);
}

TEST_F(ConfigInfo, AudioNumOf0IsReportedAndStays0) {
    EXPECT_THAT(errorsOf(with("audio_num = 3", "audio_num = 0")),
                ElementsAre(message(": invalid audio_num = 0, use default 0\n")));
    EXPECT_EQ(config_info->audio_num, 0);
}

TEST_F(ConfigInfo, NegativeWatchdogNumbersAreKeptWithoutAWord) {
    EXPECT_THAT(errorsOf(with("mcu_wdt_pulse = 22", "mcu_wdt_pulse = -22")), IsEmpty());
    EXPECT_EQ(config_info->mcu_wdt_pulse, -22);
}

TEST_F(ConfigInfo, PathThatContainsUndefIsStoredAndLogged) {
    EXPECT_THAT(
        errorsOf(with("mcu_uart_path = /dev/ttyS3", "mcu_uart_path = /dev/UNDEFINED")),
        ElementsAre(message(":config_info->mcu_uart_path is not set, need to check ini file.\n")));
    EXPECT_STREQ(config_info->mcu_uart_path, "/dev/UNDEFINED");
}

TEST_F(ConfigInfo, SocketPathOfUndefIsStoredAndLogged) {
    EXPECT_THAT(
        errorsOf(with("mcu_sock_path = /dev/socket/mcu", "mcu_sock_path = UNDEF")),
        ElementsAre(message(":config_info->mcu_sock_path is not set, need to check ini file.\n")));
    EXPECT_STREQ(config_info->mcu_sock_path, "UNDEF");
}

TEST_F(ConfigInfo, MissingFileIsAsAnEmptyOne) {
    ASSERT_TRUE(std::filesystem::remove(board.hostPath(kProductFile)));
    EXPECT_EQ(parseConfigInfo(), 0);
    EXPECT_EQ(board.log(ANDROID_LOG_ERROR).size(), 21U);
    EXPECT_EQ(config_info->fpga_done_gpio, 999);
}

TEST_F(ConfigInfo, FileWithoutSectionsHasNoneOfTheKeys) {
    EXPECT_EQ(errorsOf("product = Testbird\nmcu_type = 2\n").size(), 21U);
    EXPECT_STREQ(config_info->product, "");
}

TEST_F(ConfigInfo, ValueOfTenThousandCharactersIsCutToItsField) {
    errorsOf(with("product = Testbird", "product = " + std::string(10000, 'p')));
    EXPECT_EQ(std::string(config_info->product), std::string(63, 'p'));
    EXPECT_EQ(config_info->mcu_fd, 0);
}

TEST_F(ConfigInfo, ValueThatFillsItsFieldExactlyLosesItsLastCharacter) {
    errorsOf(with("mcu_serial = ttyS3", "mcu_serial = 0123456789abcdef"));
    EXPECT_STREQ(config_info->mcu_serial, "0123456789abcde");
    errorsOf(with("mcu_serial = ttyS3", "mcu_serial = 0123456789abcde"));
    EXPECT_STREQ(config_info->mcu_serial, "0123456789abcde");
}

TEST_F(ConfigInfo, BinaryNoiseLeavesEveryTextTerminated) {
    std::string noise;
    uint32_t state = 12345;
    for (int i = 0; i < 100000; ++i) {
        state = state * 1664525U + 1013904223U;
        noise += static_cast<char>(state >> 24);
    }
    errorsOf(noise + "\n" + kWholeFile + noise);
    EXPECT_LT(strnlen(config_info->product, 64), 64U);
    EXPECT_LT(strnlen(config_info->self_test_items, 64), 64U);
}

TEST_F(ConfigInfo, RecordThatCannotBeAllocatedFailsTheParse) {
    board.faults().add({.call = Call::kMalloc});
    EXPECT_EQ(parseConfigInfo(), -1);
    EXPECT_EQ(config_info, nullptr);
    EXPECT_THAT(board.log(), ElementsAre("parseConfigInfo:config_info malloc failed!\n"));
}

TEST_F(ConfigInfo, RecordAndProductInformationAreAllThatAParseNeeds) {
    errorsOf("");
    board.clearLog();
    board.faults().add({.call = Call::kMalloc, .times = -1});
    EXPECT_THAT(errorsOf(kWholeFile), IsEmpty());
    EXPECT_STREQ(config_info->product, "Testbird");
}

TEST_F(ConfigInfo, LongFileWithoutMemoryHasItsNumbersAndNoTexts) {
    errorsOf("");
    board.clearLog();
    board.faults().add({.call = Call::kMalloc});
    const auto errors = errorsOf(kWholeFile + std::string(65536, ';'));
    ASSERT_EQ(errors.size(), 15U);  // its own, twelve texts, two of which are paths
    EXPECT_EQ(errors[0], message(": no memory for the texts of /vendor/etc/product.ini\n"));
    EXPECT_EQ(errors[1], message(": product is NULL\n"));
    EXPECT_STREQ(config_info->product, "");
    EXPECT_EQ(config_info->mcu_type, 2);
    EXPECT_EQ(config_info->fpga_done_gpio, 13);
}

TEST_F(ConfigInfo, FileOf5GibIsSurvived) {
    if (QUIL_SANITIZED) GTEST_SKIP() << "sanitizers mark 5 GiB as they are freed";
    constexpr int64_t kSize = int64_t{5} << 30;
    board.writeFile(kProductFile, kWholeFile);
    ASSERT_EQ(truncate64(board.hostPath(kProductFile).c_str(), kSize), 0);
    void* room = sizeof(size_t) > 4 ? malloc(static_cast<size_t>(kSize) + 65536) : nullptr;
    const bool fits = room != nullptr;
    free(room);
    EXPECT_EQ(parseConfigInfo(), 0);
    EXPECT_STREQ(config_info->product, fits ? "Testbird" : "");
    EXPECT_EQ(config_info->mcu_type, 2);
}

TEST_F(ConfigInfo, ProductInformationThatCannotBeReadLeavesTheRecordZeroed) {
    errorsOf(kWholeFile);
    board.clearLog();
    board.productInformation().setFailing(true);
    EXPECT_EQ(parseConfigInfo(), -1);
    EXPECT_THAT(board.log(), ElementsAre("parseConfigInfo:parse product info failed!\n"));
    const config_info_t zero = {};
    EXPECT_EQ(memcmp(config_info, &zero, sizeof(zero)), 0);
}

TEST_F(ConfigInfo, SecondParseReusesTheRecordAndStartsFromZero) {
    errorsOf(kWholeFile);
    config_info_t* const first = config_info;
    config_info->mcu_fd = 9;
    config_info->fw_updating = 1;
    errorsOf(with("product = Testbird\n", ""));
    EXPECT_EQ(config_info, first);
    EXPECT_STREQ(config_info->product, "");
    EXPECT_EQ(config_info->mcu_fd, 0);
    EXPECT_EQ(config_info->fw_updating, 0);
}

// Nobody closes a product file, and a board that stays on parses it with each command.
TEST_F(ConfigInfo, FileThatIsAsItWasIsKeptOnce) {
    board.writeFile(kProductFile, kWholeFile);
    const int32_t first = bi_common_load_ini_file(kProductFile);
    EXPECT_EQ(bi_common_load_ini_file(kProductFile), first);
    board.writeFile(kProductFile, with("M1", "M2"));
    EXPECT_NE(bi_common_load_ini_file(kProductFile), first);
}

TEST_F(ConfigInfo, ModuleIdIsTheLeadingDecimalNumberOfItsText) {
    board.productInformation().setModuleId("42abc");
    errorsOf(kWholeFile);
    EXPECT_EQ(config_info->mod_id, 42);
    board.productInformation().setModuleId("none");
    errorsOf(kWholeFile);
    EXPECT_EQ(config_info->mod_id, 0);
}

class ConfigInfoProduct : public testing::TestWithParam<board::Product> {};

TEST_P(ConfigInfoProduct, HasAProductFileWithNothingToComplainAbout) {
    const FreshLibrary library;
    const board::Board board(GetParam());
    EXPECT_EQ(parseConfigInfo(), 0);
    EXPECT_THAT(board.log(ANDROID_LOG_ERROR), IsEmpty());
    EXPECT_EQ(config_info->product, board::nameOf(GetParam()));
    EXPECT_NE(config_info->mod_id, 0);
}

INSTANTIATE_TEST_SUITE_P(Each, ConfigInfoProduct,
                         testing::Values(board::Product::kHeron, board::Product::kKestrel,
                                         board::Product::kWrenT507),
                         [](const auto& info) { return std::string(nameOf(info.param)); });

}  // namespace quil::tests
