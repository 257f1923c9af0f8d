// The load sequences of the three products.
#include "fpga/load_process.h"

#include <errno.h>

#include "board/fpga/fpga_library.h"
#include "tests/fpga/fpga_test.h"

namespace quil::tests {

using board::Call;
using board::EventKind;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class FpgaLoad : public FpgaTest {
  protected:
    std::string property() { return board.properties().get(kFpgaUpdateProperty, "(absent)"); }
    void setProperty(const std::string& value) {
        board.properties().set(kFpgaUpdateProperty, value);
    }

    // The messages of one function, without those of the functions that it calls.
    std::vector<std::string> messagesOf(const std::string& function) {
        std::vector<std::string> kept;
        for (const std::string& line : messages()) {
            if (line.compare(2, function.size() + 1, function + ":") == 0) kept.push_back(line);
        }
        return kept;
    }
    // "name(arguments)" of each call into the closed libraries.
    std::vector<std::string> vendorCalls() {
        std::vector<std::string> calls;
        for (const auto& event : board.trace().events(EventKind::kVendor)) {
            calls.push_back(event.source + "(" + event.text + ")");
        }
        return calls;
    }
    void failVendor(const std::string& function) {
        board.faults().add({.call = Call::kVendor, .path = function, .error = EIO});
    }
    static std::string quietly(int (*sequence)(), int expected) {
        return standardOutputOf([&] { EXPECT_EQ(sequence(), expected); });
    }
};

// Heron. Only the order of the steps is tested: commands are faked, DONE is 1, the DDR is ready,
// the partition is missing and the network's clock never comes up.
class FpgaLoadHeron : public FpgaLoad {
  protected:
    FpgaLoadHeron() {
        parseProduct();
        std::filesystem::create_directories(board.hostPath("/vendor/bin"));
        board.writeFile("/vendor/bin/mtd_debug", "a tool");
        board.gpio().at(443).stickAt(1);
        board.fpga().scriptReads(kDdrAt, {1});
        board.fpga().scriptReads(kClockAt, {0});
        std::filesystem::remove(board.hostPath("/dev/block/by-name/screen"));
        startFresh("I");
    }
    void fakeCommands(const std::string& failingWord = "") {
        for (const char* command : {"mtd_debug erase /dev/mtd0 0 0xD00000"}) {
            if (!failingWord.empty() && std::string(command).find(failingWord) != std::string::npos)
                board.faults().add({.call = Call::kSystem, .path = command, .exitCode = 1});
        }
        board.faults().add({.call = Call::kSystem, .times = -1, .lostSilently = true});
    }
    std::vector<std::string> run(int expected) {
        quietly(fpgaLoadProcessHeron, expected);
        return messagesOf("fpgaLoadProcessHeron");
    }
};

const std::vector<std::string> kBroughtUp = {
    "I fpgaLoadProcessHeron: fpgaCheckDone ok\n", "I fpgaLoadProcessHeron: fpgaRecoveryDdr ok\n",
    "E fpgaLoadProcessHeron: fpgaLoadScreenParamsBySpi failed\n",
    "I fpgaLoadProcessHeron: fpgaNetworkConfig ok\n"};

TEST_F(FpgaLoadHeron, WithoutTheUpdatePropertyBringsTheFpgaUpAsItIs) {
    EXPECT_THAT(run(0),
                ElementsAre("I fpgaLoadProcessHeron: persist.quil.system.fpga.fw.update = 0\n",
                            kBroughtUp[0], kBroughtUp[1], kBroughtUp[2], kBroughtUp[3]));
    EXPECT_THAT(commands(), IsEmpty());
    EXPECT_THAT(vendorCalls(), IsEmpty());
    EXPECT_EQ(property(), "(absent)");
}

TEST_F(FpgaLoadHeron, AnyPropertyThatDoesNotStartWith1IsTheNormalPath) {
    for (const char* value : {"0", "01", "true", " 1"}) {
        setProperty(value);
        startFresh("I");
        EXPECT_EQ(run(0)[0],
                  std::string("I fpgaLoadProcessHeron: persist.quil.system.fpga.fw.update = ") +
                      value + "\n");
        EXPECT_THAT(commands(), IsEmpty());
        EXPECT_EQ(property(), value);
    }
}

TEST_F(FpgaLoadHeron, PendingUpdateIsWrittenBeforeTheRestAndEndsWithTheSwitchToUdp) {
    setProperty("1");
    fakeCommands();
    EXPECT_THAT(run(0),
                ElementsAre("I fpgaLoadProcessHeron: persist.quil.system.fpga.fw.update = 1\n",
                            "I fpgaLoadProcessHeron: fpgaFlashFormat ok\n",
                            "I fpgaLoadProcessHeron: now wait 1s...",
                            "I fpgaLoadProcessHeron: fpgaFlashWrite ok\n", kBroughtUp[0],
                            "I fpgaLoadProcessHeron: persist.quil.system.fpga.fw.update set to 0\n",
                            kBroughtUp[1], kBroughtUp[2], kBroughtUp[3],
                            "I fpgaLoadProcessHeron: fpgaSwitchGmacToUdp ok\n"));
    EXPECT_EQ(property(), "0");
    EXPECT_THAT(vendorCalls(), ElementsAre("fpgaSwitchGmacToUdp()"));
}

TEST_F(FpgaLoadHeron, UpdateWaitsASecondBetweenFormatAndWrite) {
    setProperty("1");
    fakeCommands();
    run(0);
    const auto lines = timeline();
    ASSERT_GE(lines.size(), 5U);
    EXPECT_THAT(std::vector<std::string>(lines.begin(), lines.begin() + 5),
                ElementsAre("gpio 441 = 0", "$ mtd_debug erase /dev/mtd0 0 0xD00000",
                            "gpio 441 = 1", "sleep 1.000000 s", "gpio 441 = 0"));
}

TEST_F(FpgaLoadHeron, PropertyThatStartsWith1SelectsTheUpdate) {
    for (const char* value : {"10", "1x"}) {
        setProperty(value);
        startFresh("I");
        fakeCommands();
        EXPECT_EQ(run(0)[1], "I fpgaLoadProcessHeron: fpgaFlashFormat ok\n");
        EXPECT_EQ(property(), "0");
    }
}

TEST_F(FpgaLoadHeron, FormatThatFailsStopsTheUpdate) {
    setProperty("1");
    fakeCommands("erase");
    EXPECT_THAT(run(-1),
                ElementsAre("I fpgaLoadProcessHeron: persist.quil.system.fpga.fw.update = 1\n",
                            "E fpgaLoadProcessHeron: fpgaFlashFormat failed\n"));
    EXPECT_EQ(property(), "1");
    EXPECT_THAT(sleeps(), IsEmpty());
}

TEST_F(FpgaLoadHeron, WriteThatFailsStopsTheUpdate) {
    setProperty("1");
    fakeCommands();
    config_info->fpga_fw_path[0] = '\0';
    std::vector<std::string> lines;
    standardErrorOf([&] { lines = run(-1); });
    EXPECT_EQ(lines.back(), "E fpgaLoadProcessHeron: fpgaFlashWrite failed\n");
    EXPECT_EQ(lines.size(), 4U);
    EXPECT_EQ(property(), "1");
}

TEST_F(FpgaLoadHeron, DoneThatNeverRisesStopsTheUpdateAndLeavesThePropertyForTheNextStart) {
    setProperty("1");
    fakeCommands();
    board.gpio().at(443).stickAt(0);
    EXPECT_EQ(run(-1).back(), "E fpgaLoadProcessHeron: fpgaCheckDone failed\n");
    EXPECT_EQ(property(), "1");
}

TEST_F(FpgaLoadHeron, DoneThatNeverRisesStopsTheNormalPath) {
    board.gpio().at(443).stickAt(0);
    EXPECT_THAT(run(-1),
                ElementsAre("I fpgaLoadProcessHeron: persist.quil.system.fpga.fw.update = 0\n",
                            "E fpgaLoadProcessHeron: fpgaCheckDone failed\n"));
}

TEST_F(FpgaLoadHeron, DoneLineThatCannotBeReadCountsAsDone) {
    board.faults().add({.call = Call::kGpioGet, .path = kDoneLine, .error = EIO, .times = -1});
    EXPECT_EQ(run(0)[1], "I fpgaLoadProcessHeron: fpgaCheckDone ok\n");
}

TEST_F(FpgaLoadHeron, DoneLineThatCannotBeReadCountsAsDoneAfterAnUpdateToo) {
    setProperty("1");
    fakeCommands();
    board.faults().add({.call = Call::kGpioGet, .path = kDoneLine, .error = EIO, .times = -1});
    EXPECT_THAT(run(0), Contains("I fpgaLoadProcessHeron: fpgaCheckDone ok\n"));
    EXPECT_EQ(property(), "0");
}

TEST_F(FpgaLoadHeron, DdrThatDoesNotRecoverIsLoggedBothWaysAndTheScreenFollows) {
    board.fpga().scriptReads(kDdrAt, {0});
    EXPECT_THAT(
        run(0),
        ElementsAre("I fpgaLoadProcessHeron: persist.quil.system.fpga.fw.update = 0\n",
                    "I fpgaLoadProcessHeron: fpgaCheckDone ok\n",
                    "E fpgaLoadProcessHeron: fpgaRecoveryDdr failed\n",
                    "I fpgaLoadProcessHeron: fpgaRecoveryDdr ok\n", kBroughtUp[2], kBroughtUp[3]));
    EXPECT_THAT(messages(),
                Contains("E read_screen_paramter: open /dev/block/by-name/screen failed !!!\n"));
}

TEST_F(FpgaLoadHeron, NetworkFollowsTheScreenAndSaysOkWhateverHappened) {
    const std::string printed = quietly(fpgaLoadProcessHeron, 0);
    EXPECT_THAT(printed, HasSubstr("in fpgaNetworkConfig\nfpgaNetworkConfig try\n"));
    const auto lines = messages();
    EXPECT_THAT(lines, Contains("E fpgaNetworkConfig: fpgaPhySgmiiConfig failed\n"));
    EXPECT_EQ(lines.back(), "I fpgaLoadProcessHeron: fpgaNetworkConfig ok\n");
}

TEST_F(FpgaLoadHeron, SwitchToUdpThatFailsFailsTheSequenceAfterTheImageIsInPlace) {
    setProperty("1");
    fakeCommands();
    failVendor("fpgaSwitchGmacToUdp");
    EXPECT_EQ(run(-1).back(), "E fpgaLoadProcessHeron: fpgaSwitchGmacToUdp failed\n");
    EXPECT_EQ(property(), "0");
}

TEST_F(FpgaLoadHeron, SaysOnlyItsFailuresAtTheDefaultLevel) {
    startFresh("E");
    EXPECT_THAT(run(0), ElementsAre("E fpgaLoadProcessHeron: fpgaLoadScreenParamsBySpi failed\n"));
}

// Kestrel.

class FpgaLoadKestrel : public FpgaLoad {
  protected:
    FpgaLoadKestrel() {
        parseProduct();
        snprintf(config_info->fpga_drv_path, sizeof(config_info->fpga_drv_path), "/dev/driver");
        snprintf(config_info->fpga_fw_path, sizeof(config_info->fpga_fw_path), "/vendor/image");
        snprintf(config_info->fpga_parameter, sizeof(config_info->fpga_parameter), "block one");
        snprintf(config_info->hex_parameter, sizeof(config_info->hex_parameter), "block two");
        for (const char* call :
             {"hal_fpga_load_program_sync", "bi_fpga_load_screen_params_by_udp"}) {
            mSucceeding.push_back(call);
        }
        startFresh("I");
    }
    // Makes the closed library return 0 without doing anything.
    void succeed() {
        for (const std::string& call : mSucceeding) {
            board.faults().add({.call = Call::kVendor, .path = call, .lostSilently = true});
        }
    }

  private:
    std::vector<std::string> mSucceeding;
};

constexpr char kLoadCall[] = "hal_fpga_load_program_sync(/dev/driver, /vendor/image)";
constexpr char kScreenCall[] = "bi_fpga_load_screen_params_by_udp(block one, block two)";

TEST_F(FpgaLoadKestrel, LoadsTheImageThenEth1ThenTheScreenByUdp) {
    succeed();
    EXPECT_EQ(fpgaLoadProcessKestrel(), 0);
    EXPECT_THAT(vendorCalls(),
                ElementsAre(kLoadCall, "bi_fpga_eth1_config_kestrel()", kScreenCall));
    EXPECT_THAT(sleeps(), ElementsAre("1.000000 s", "1.000000 s"));
    EXPECT_THAT(messages(),
                ElementsAre("I fpgaLoadProcessKestrel: hal_fpga_load_program_sync ok\n",
                            "I fpgaLoadProcessKestrel: fpgaLoadScreenParamsByUdp ok\n"));
}

TEST_F(FpgaLoadKestrel, ClosedLibraryMayKeepItsTextsForTheyAreTheRecordsOwn) {
    succeed();
    fpgaLoadProcessKestrel();
    const std::vector<const char*> fields = {config_info->fpga_drv_path, config_info->fpga_fw_path,
                                             config_info->fpga_parameter,
                                             config_info->hex_parameter};
    EXPECT_EQ(board.fpgaLibrary().texts(), fields);
    board.trace().clear();
    EXPECT_THAT(board.fpgaLibrary().texts(), IsEmpty());
}

TEST_F(FpgaLoadKestrel, RestsASecondBeforeAndBehindEth1) {
    succeed();
    fpgaLoadProcessKestrel();
    std::vector<std::string> order;
    for (const auto& event : board.trace().events()) {
        if (event.kind == EventKind::kSleep) order.push_back("sleep");
        if (event.kind == EventKind::kVendor) order.push_back(event.source);
    }
    EXPECT_THAT(order,
                ElementsAre("hal_fpga_load_program_sync", "sleep", "bi_fpga_eth1_config_kestrel",
                            "sleep", "bi_fpga_load_screen_params_by_udp"));
}

TEST_F(FpgaLoadKestrel, ImageThatCannotBeLoadedStopsTheSequence) {
    failVendor("hal_fpga_load_program_sync");
    EXPECT_EQ(fpgaLoadProcessKestrel(), -1);
    EXPECT_THAT(vendorCalls(), ElementsAre(kLoadCall));
    EXPECT_THAT(sleeps(), IsEmpty());
    EXPECT_THAT(messages(),
                ElementsAre("E fpgaLoadProcessKestrel: hal_fpga_load_program_sync failed\n"));
}

TEST_F(FpgaLoadKestrel, Eth1ThatFailsIsNotLookedAt) {
    failVendor("bi_fpga_eth1_config_kestrel");
    succeed();
    EXPECT_EQ(fpgaLoadProcessKestrel(), 0);
}

TEST_F(FpgaLoadKestrel, ScreenThatCannotBeSentFailsTheSequence) {
    failVendor("bi_fpga_load_screen_params_by_udp");
    succeed();
    EXPECT_EQ(fpgaLoadProcessKestrel(), -1);
    EXPECT_EQ(messages().back(), "E fpgaLoadProcessKestrel: fpgaLoadScreenParamsByUdp failed\n");
}

TEST_F(FpgaLoadKestrel, NeitherReadsNorWritesTheUpdateProperty) {
    setProperty("1");
    startFresh("I");
    succeed();
    EXPECT_EQ(fpgaLoadProcessKestrel(), 0);
    EXPECT_EQ(property(), "1");
    EXPECT_THAT(messages(), Not(Contains(HasSubstr(kFpgaUpdateProperty))));
}

// Wren_t507.

class FpgaLoadWren : public FpgaLoad {
  protected:
    FpgaLoadWren() {
        startFresh("I");
        setProperty("1");
    }
    void succeed(const char* call) {
        board.faults().add({.call = Call::kVendor, .path = call, .lostSilently = true});
    }
};

TEST_F(FpgaLoadWren, PendingUpdateIsDoneByTheClosedLibraryBeforeTheParameters) {
    succeed("bi_fpga_active_update_program");
    succeed("bi_fpga_load_parameter");
    EXPECT_EQ(fpgaLoadProcessWren_t507(), 0);
    EXPECT_THAT(vendorCalls(),
                ElementsAre("bi_fpga_active_update_program()", "bi_fpga_load_parameter()"));
    EXPECT_THAT(messages(),
                ElementsAre("I fpgaLoadProcessWren_t507: persist.quil.system.fpga.fw.update = 1\n",
                            "I fpgaLoadProcessWren_t507: bi_fpga_active_update_program ok\n",
                            "I fpgaLoadProcessWren_t507: persist.quil.system.fpga.fw.update set "
                            "to 0\n",
                            "I fpgaLoadProcessWren_t507: bi_fpga_load_parameter ok\n"));
    EXPECT_EQ(property(), "0");
    EXPECT_THAT(timeline(), IsEmpty());
}

TEST_F(FpgaLoadWren, WithoutAPendingUpdateOnlyTheParametersAreLoaded) {
    setProperty("0");
    succeed("bi_fpga_load_parameter");
    EXPECT_EQ(fpgaLoadProcessWren_t507(), 0);
    EXPECT_THAT(vendorCalls(), ElementsAre("bi_fpga_load_parameter()"));
    EXPECT_THAT(messages(),
                ElementsAre("I fpgaLoadProcessWren_t507: persist.quil.system.fpga.fw.update = 0\n",
                            "I fpgaLoadProcessWren_t507: bi_fpga_load_parameter ok\n"));
}

TEST_F(FpgaLoadWren, OnlyTheFirstCharacterOfThePropertySelectsTheUpdate) {
    for (const char* value : {"10", "1x"}) {
        setProperty(value);
        startFresh("E");
        succeed("bi_fpga_active_update_program");
        succeed("bi_fpga_load_parameter");
        EXPECT_EQ(fpgaLoadProcessWren_t507(), 0);
        EXPECT_EQ(vendorCalls().size(), 2U);
        EXPECT_EQ(property(), "0");
    }
    for (const char* value : {"01", " 1", "x1"}) {
        setProperty(value);
        startFresh("E");
        succeed("bi_fpga_load_parameter");
        EXPECT_EQ(fpgaLoadProcessWren_t507(), 0);
        EXPECT_EQ(vendorCalls().size(), 1U);
        EXPECT_EQ(property(), value);
    }
}

TEST(FpgaLoadWrenUntouched, HasNoPropertyAndLoadsTheParametersAlone) {
    board::Board board(board::Product::kWrenT507);
    board.properties().set("persist.quil.device.log.level", "I");
    board.faults().add(
        {.call = Call::kVendor, .path = "bi_fpga_load_parameter", .lostSilently = true});
    EXPECT_EQ(fpgaLoadProcessWren_t507(), 0);
    ASSERT_EQ(board.logLines().size(), 2U);
    EXPECT_EQ(board.logLines()[0].text,
              "fpgaLoadProcessWren_t507: persist.quil.system.fpga.fw.update = 0\n");
    EXPECT_EQ(board.properties().get(kFpgaUpdateProperty, "(absent)"), "(absent)");
}

TEST_F(FpgaLoadWren, UpdateThatFailsStopsTheSequenceAndStaysPending) {
    failVendor("bi_fpga_active_update_program");
    EXPECT_EQ(fpgaLoadProcessWren_t507(), -1);
    EXPECT_THAT(vendorCalls(), ElementsAre("bi_fpga_active_update_program()"));
    EXPECT_EQ(messages().back(),
              "E fpgaLoadProcessWren_t507: bi_fpga_active_update_program failed\n");
    EXPECT_EQ(property(), "1");
}

TEST_F(FpgaLoadWren, ParametersThatFailFailTheSequenceAfterTheImageIsInPlace) {
    succeed("bi_fpga_active_update_program");
    failVendor("bi_fpga_load_parameter");
    EXPECT_EQ(fpgaLoadProcessWren_t507(), -1);
    EXPECT_EQ(messages().back(), "E fpgaLoadProcessWren_t507: bi_fpga_load_parameter failed\n");
    EXPECT_EQ(property(), "0");
}

}  // namespace quil::tests
