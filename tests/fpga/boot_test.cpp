// The three products' load sequences on whole boards, without a fault and with one at each step.
#include <errno.h>

#include <filesystem>
#include <functional>

#include "board/fpga/fpga_image.h"
#include "board/fpga/screen_partition.h"
#include "fpga/load_process.h"
#include "testing/bytes.h"
#include "testing/files.h"
#include "testing/screen_reading.h"
#include "tests/fpga/fpga_test.h"

namespace quil::tests {

using board::Board;
using board::Call;
using board::Product;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

// A board of any product with its file parsed; runs its load sequence and shows the results.
class BootedBoard {
  public:
    explicit BootedBoard(Product product) : board(product) {
        EXPECT_EQ(parseConfigInfo(), 0);
        board.clearLog();
    }

    int32_t load() {
        int32_t result = 0;
        standardOutputOf([&] { result = sequence()(); });
        return result;
    }
    void askForUpdate() { board.properties().set(kFpgaUpdateProperty, "1"); }
    std::string property() { return board.properties().get(kFpgaUpdateProperty, "(absent)"); }
    std::vector<std::string> errors() { return board.log(ANDROID_LOG_ERROR); }
    std::string file(const std::string& path) const { return contentOf(board.hostPath(path)); }
    Bytes screen() const {
        const std::string bytes = file("/dev/block/by-name/screen");
        return {bytes.begin(), bytes.end()};
    }
    void putScreen(const std::vector<board::ScreenBlock>& blocks) {
        board.writeFile("/dev/block/by-name/screen", board::makeScreenPartition(blocks));
    }
    // Whether the flash holds the file system's image, and is erased behind it.
    bool holdsNewImage() {
        const std::string image = file(config_info->fpga_fw_path);
        const auto cells = board.flash().read(0, image.size());
        return std::equal(cells.begin(), cells.end(), image.begin(), image.end(),
                          [](uint8_t cell, char byte) { return cell == uint8_t(byte); }) &&
               board.flash().usedSize() <= image.size();
    }

    const FreshLibrary library;
    Board board;

  private:
    static int32_t (*sequence())() {
        const std::string product = config_info->product;
        if (product == "Kestrel") return fpgaLoadProcessKestrel;
        return product == "Heron" ? fpgaLoadProcessHeron : fpgaLoadProcessWren_t507;
    }
};

}  // namespace

TEST(FpgaBoot, HeronComesUpAndIsLeftAsAHealthyBoard) {
    BootedBoard heron(Product::kHeron);
    EXPECT_EQ(heron.load(), 0);
    EXPECT_THAT(heron.errors(), IsEmpty());
    EXPECT_THAT(heron.board.violations(), IsEmpty());
    EXPECT_EQ(heron.board.fpga().version(), "V2.0.7");
    EXPECT_EQ(heron.property(), "(absent)");
    EXPECT_TRUE(heron.board.phy().isLinkUp());
    EXPECT_EQ(heron.board.fpga().registerNow(board::Fpga::kSgmiiNegotiation), 1);
    EXPECT_EQ(heron.board.network().eth1().address, "240.10.10.10");
    EXPECT_EQ(heron.board.network().eth1().netmask, "255.255.255.0");
    EXPECT_TRUE(heron.board.network().eth1().up);
    EXPECT_EQ(heron.board.network().driverLoads(), 2);
    EXPECT_FALSE(heron.board.fpga().isUdpMode());
}

TEST(FpgaBoot, HeronWithAPendingUpdateEndsWithTheNewImage) {
    BootedBoard heron(Product::kHeron);
    heron.askForUpdate();
    EXPECT_FALSE(heron.holdsNewImage());
    EXPECT_EQ(heron.load(), 0);
    EXPECT_THAT(heron.errors(), IsEmpty());
    EXPECT_THAT(heron.board.violations(), IsEmpty());
    EXPECT_TRUE(heron.holdsNewImage());
    EXPECT_EQ(heron.board.fpga().version(), "V2.1.0");
    EXPECT_EQ(heron.property(), "0");
    EXPECT_TRUE(heron.board.phy().isLinkUp());
    EXPECT_TRUE(heron.board.fpga().isUdpMode());
}

TEST(FpgaBoot, KestrelIsLoadedByThePlatformWhateverThePropertySays) {
    BootedBoard kestrel(Product::kKestrel);
    kestrel.askForUpdate();
    EXPECT_EQ(kestrel.load(), 0);
    EXPECT_THAT(kestrel.errors(), IsEmpty());
    EXPECT_THAT(kestrel.board.violations(), IsEmpty());
    EXPECT_EQ(kestrel.board.fpga().version(), "V3.0.2");
    EXPECT_EQ(kestrel.property(), "1");
    EXPECT_TRUE(kestrel.board.network().eth1().up);
    EXPECT_TRUE(kestrel.board.fpga().isUdpMode());
    EXPECT_EQ(kestrel.board.flash().usedSize(), 0U);
}

TEST(FpgaBoot, WrenTakesItsParametersFromTheClosedLibrary) {
    BootedBoard wren(Product::kWrenT507);
    EXPECT_EQ(wren.load(), 0);
    EXPECT_THAT(wren.errors(), IsEmpty());
    EXPECT_EQ(wren.board.fpga().version(), "V1.3.2");
    EXPECT_EQ(wren.property(), "(absent)");
}

TEST(FpgaBoot, WrenWithAPendingUpdateEndsWithTheNewImage) {
    BootedBoard wren(Product::kWrenT507);
    wren.askForUpdate();
    EXPECT_EQ(wren.load(), 0);
    EXPECT_THAT(wren.errors(), IsEmpty());
    EXPECT_THAT(wren.board.violations(), IsEmpty());
    EXPECT_TRUE(wren.holdsNewImage());
    EXPECT_EQ(wren.board.fpga().version(), "V1.4.0");
    EXPECT_EQ(wren.property(), "0");
}

TEST(FpgaBoot, MemoryOfAHeronHoldsWhatThePartitionSays) {
    BootedBoard heron(Product::kHeron);
    ASSERT_EQ(heron.load(), 0);
    const auto expected = ScreenReading(heron.screen()).memory();
    EXPECT_GT(expected.size(), 40000U);
    EXPECT_TRUE(heron.board.fpga().memory() == expected);
}

TEST(FpgaBoot, MemoryHoldsWhatThePartitionSaysAlsoForBlocksOfOtherLengths) {
    BootedBoard heron(Product::kHeron);
    auto blocks = board::factoryScreen();
    const std::vector<std::pair<size_t, size_t>> lengths = {
        {0, 4000}, {1, 20}, {5, 100}, {6, 5000}, {8, 1}, {9, 4097}, {10, 300}, {13, 30}, {14, 5}};
    for (const auto& [block, length] : lengths) {
        blocks.at(block).data.resize(length, static_cast<uint8_t>(0x40 + block));
    }
    blocks.at(15).data.at(24) = 0;
    blocks.push_back({0x10018000, Bytes(5120, 1)});
    blocks.back().data.at(4) = 0;
    heron.putScreen(blocks);
    ASSERT_EQ(heron.load(), 0);
    EXPECT_TRUE(heron.board.fpga().memory() == ScreenReading(heron.screen()).memory());
    EXPECT_THAT(heron.board.violations(), IsEmpty());
}

// One fault on an otherwise healthy board.
struct StageFault {
    const char* name;
    Product product;
    bool updates;
    std::function<void(Board&)> arrange;
    int32_t result;
    std::vector<std::string> errors;
    std::string property;
};
void PrintTo(const StageFault& row, std::ostream* out) { *out << row.name; }

class FpgaBootWith : public testing::TestWithParam<StageFault> {};

TEST_P(FpgaBootWith, EndsAsTheSequenceSays) {
    BootedBoard booted(GetParam().product);
    if (GetParam().updates) booted.askForUpdate();
    GetParam().arrange(booted.board);
    EXPECT_EQ(booted.load(), GetParam().result);
    EXPECT_THAT(booted.errors(), ElementsAreArray(GetParam().errors));
    EXPECT_EQ(booted.property(), GetParam().property);
    EXPECT_THAT(booted.board.violations(), IsEmpty());
}

// Makes a call fail `times` times, after `after` successes.
std::function<void(Board&)> failing(Call call, const std::string& path, int after = 0,
                                    int times = 1) {
    return [=](Board& board) {
        board.faults().add(
            {.call = call, .path = path, .error = EIO, .after = after, .times = times});
    };
}

std::function<void(Board&)> without(const std::string& path) {
    return [=](Board& board) { std::filesystem::remove(board.hostPath(path)); };
}

constexpr char kFlash[] = "/dev/mtd0";

std::vector<std::string> times(size_t count, const std::vector<std::string>& lines) {
    std::vector<std::string> all;
    for (size_t i = 0; i < count; ++i) all.insert(all.end(), lines.begin(), lines.end());
    return all;
}

const std::vector<std::string> kBadDdr = {"fpgaRecovery: invalid fpga_ddr_state = 0\n"};
const std::vector<std::string> kNoClock = {"fpgaPhySgmiiConfig: readFpgaSgmiiClockState failed\n"};
const std::vector<std::string> kNoLink = {"fpgaPhySgmiiConfig: readRtl8211fsPhyLink failed\n"};
const std::vector<std::string> kNetworkFailed = {"fpgaNetworkConfig: fpgaPhySgmiiConfig failed\n"};
const std::vector<std::string> kDdrFailed = {"fpgaCheckDDRAndRecovery: ddr_recovery failed\n",
                                             "fpgaLoadProcessHeron: fpgaRecoveryDdr failed\n"};
constexpr char kScreenDevice[] = "/dev/block/by-name/screen";

INSTANTIATE_TEST_SUITE_P(
    HeronUpdate, FpgaBootWith,
    testing::Values(StageFault{"ControlLineStuckBeforeTheErase",
                               Product::kHeron,
                               true,
                               failing(Call::kGpioSet, kControlLine),
                               -1,
                               {"fpgaFlashFormat: gpio 441 set failed\n",
                                "fpgaLoadProcessHeron: fpgaFlashFormat failed\n"},
                               "1"},
                    StageFault{"NoTool",
                               Product::kHeron,
                               true,
                               without("/vendor/bin/mtd_debug"),
                               -1,
                               {"fpgaFlashFormat: mtd_debug tool not exist\n",
                                "fpgaLoadProcessHeron: fpgaFlashFormat failed\n"},
                               "1"},
                    StageFault{"EraseFails",
                               Product::kHeron,
                               true,
                               failing(Call::kFlashErase, kFlash, 100),
                               -1,
                               {"fpgaFlashFormat: mtd_debug erase exit status: 1\n",
                                "fpgaLoadProcessHeron: fpgaFlashFormat failed\n"},
                               "1"},
                    StageFault{"ControlLineStuckAfterTheErase",
                               Product::kHeron,
                               true,
                               failing(Call::kGpioSet, kControlLine, 1),
                               -1,
                               {"fpgaFlashFormat: gpio 441 set failed\n",
                                "fpgaLoadProcessHeron: fpgaFlashFormat failed\n"},
                               "1"},
                    StageFault{"NoImage",
                               Product::kHeron,
                               true,
                               without(kFpgaImage),
                               -1,
                               {"fpgaFlashWrite: /vendor/firmware/fpga_Heron.bin not exist\n",
                                "fpgaLoadProcessHeron: fpgaFlashWrite failed\n"},
                               "1"},
                    StageFault{"EmptyImage",
                               Product::kHeron,
                               true,
                               [](Board& board) { board.writeFile(kFpgaImage, ""); },
                               -1,
                               {"fpgaFlashWrite: invalid heron_fpga_fw size = 0\n",
                                "fpgaLoadProcessHeron: fpgaFlashWrite failed\n"},
                               "1"},
                    StageFault{"SizeUnknown",
                               Product::kHeron,
                               true,
                               failing(Call::kFopen, kFpgaImage),
                               -1,
                               {"fpgaFlashWrite: mtd_debug write exit status: 1\n",
                                "fpgaLoadProcessHeron: fpgaFlashWrite failed\n"},
                               "1"},
                    StageFault{"ControlLineStuckBeforeTheWrite",
                               Product::kHeron,
                               true,
                               failing(Call::kGpioSet, kControlLine, 2),
                               -1,
                               {"fpgaFlashWrite: gpio 441 set failed\n",
                                "fpgaLoadProcessHeron: fpgaFlashWrite failed\n"},
                               "1"},
                    StageFault{"ConfigLineStuckBeforeTheWrite",
                               Product::kHeron,
                               true,
                               failing(Call::kGpioSet, kConfigLine),
                               -1,
                               {"fpgaFlashWrite: gpio 442 set failed\n",
                                "fpgaLoadProcessHeron: fpgaFlashWrite failed\n"},
                               "1"},
                    StageFault{"ProgrammingFails",
                               Product::kHeron,
                               true,
                               failing(Call::kFlashProgram, kFlash, 200),
                               -1,
                               {"fpgaFlashWrite: mtd_debug write exit status: 1\n",
                                "fpgaLoadProcessHeron: fpgaFlashWrite failed\n"},
                               "1"},
                    StageFault{"ControlLineStuckAfterTheWrite",
                               Product::kHeron,
                               true,
                               failing(Call::kGpioSet, kControlLine, 3),
                               -1,
                               {"fpgaFlashWrite: gpio 441 set failed\n",
                                "fpgaLoadProcessHeron: fpgaFlashWrite failed\n"},
                               "1"},
                    StageFault{"ConfigLineStuckAtTheEnd",
                               Product::kHeron,
                               true,
                               failing(Call::kGpioSet, kConfigLine, 2),
                               -1,
                               {"fpgaFlashWrite: gpio 442 set failed\n",
                                "fpgaLoadProcessHeron: fpgaFlashWrite failed\n"},
                               "1"},
                    StageFault{
                        "DamagedImage",
                        Product::kHeron,
                        true,
                        [](Board& board) { board.writeFile(kFpgaImage, std::string(70000, 'x')); },
                        -1,
                        {"fpgaLoadProcessHeron: fpgaCheckDone failed\n"},
                        "1"},
                    StageFault{"PageLostSilently",
                               Product::kHeron,
                               true,
                               [](Board& board) {
                                   board.faults().add({.call = Call::kFlashProgram,
                                                       .path = kFlash,
                                                       .after = 7,
                                                       .lostSilently = true});
                               },
                               -1,
                               {"fpgaLoadProcessHeron: fpgaCheckDone failed\n"},
                               "1"},
                    StageFault{"DoneNeverRises",
                               Product::kHeron,
                               true,
                               [](Board& board) { board.fpga().setStuckUnconfigured(true); },
                               -1,
                               {"fpgaLoadProcessHeron: fpgaCheckDone failed\n"},
                               "1"},
                    StageFault{"ToolGoneBeforeTheWrite",
                               Product::kHeron,
                               true,
                               failing(Call::kAccess, "/vendor/bin/mtd_debug", 1),
                               -1,
                               {"fpgaFlashWrite: mtd_debug tool not exist\n",
                                "fpgaLoadProcessHeron: fpgaFlashWrite failed\n"},
                               "1"},
                    StageFault{"ConfigLineStuckAfterTheWrite",
                               Product::kHeron,
                               true,
                               failing(Call::kGpioSet, kConfigLine, 1),
                               -1,
                               {"fpgaFlashWrite: gpio 442 set failed\n",
                                "fpgaLoadProcessHeron: fpgaFlashWrite failed\n"},
                               "1"},
                    StageFault{"DdrOfTheNewImageNeverGood", Product::kHeron, true,
                               [](Board& board) { board.fpga().setDdr({.failures = -1}); }, 0,
                               times(3, kBadDdr) + kDdrFailed, "0"},
                    StageFault{"NoPartitionAfterTheUpdate",
                               Product::kHeron,
                               true,
                               without(kScreenDevice),
                               0,
                               {"read_screen_paramter: open /dev/block/by-name/screen failed !!!\n",
                                "fpgaLoadScreenParamsBySpi: failed to read screen paramter\n",
                                "fpgaLoadProcessHeron: fpgaLoadScreenParamsBySpi failed\n"},
                               "0"},
                    StageFault{"NoCableAfterTheUpdate", Product::kHeron, true,
                               [](Board& board) { board.phy().setCable(false); }, 0,
                               times(5, kNoLink) + kNetworkFailed, "0"},
                    StageFault{"SwitchToUdpFails",
                               Product::kHeron,
                               true,
                               failing(Call::kVendor, "fpgaSwitchGmacToUdp"),
                               -1,
                               {"fpgaLoadProcessHeron: fpgaSwitchGmacToUdp failed\n"},
                               "0"}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Heron, FpgaBootWith,
    testing::Values(
        StageFault{"DoneLow",
                   Product::kHeron,
                   false,
                   [](Board& board) { board.fpga().setStuckUnconfigured(true); },
                   -1,
                   {"fpgaLoadProcessHeron: fpgaCheckDone failed\n"},
                   "(absent)"},
        StageFault{"DdrGoodAfterTheSecondConfiguration", Product::kHeron, false,
                   [](Board& board) { board.fpga().setDdr({.after = 50ms, .failures = 1}); }, 0,
                   kBadDdr, "(absent)"},
        StageFault{"DdrNeverGood", Product::kHeron, false,
                   [](Board& board) { board.fpga().setDdr({.failures = -1}); }, 0,
                   times(3, kBadDdr) + kDdrFailed, "(absent)"},
        StageFault{"DdrReadFailsOnce",
                   Product::kHeron,
                   false,
                   [](Board& board) {
                       board.faults().add({.call = Call::kRead, .path = kSpiDevice, .error = EIO});
                   },
                   0,
                   {"readFpgaDdrState: read spi port /dev/fpga_spi failed, return -1.\n",
                    "fpgaCheckDDRAndRecovery: spi_read_fpga_ddr_state failed\n",
                    "fpgaRecovery: invalid fpga_ddr_state = 2\n"},
                   "(absent)"},
        StageFault{"NoPartition",
                   Product::kHeron,
                   false,
                   without(kScreenDevice),
                   0,
                   {"read_screen_paramter: open /dev/block/by-name/screen failed !!!\n",
                    "fpgaLoadScreenParamsBySpi: failed to read screen paramter\n",
                    "fpgaLoadProcessHeron: fpgaLoadScreenParamsBySpi failed\n"},
                   "(absent)"},
        StageFault{"EmptyPartition",
                   Product::kHeron,
                   false,
                   [](Board& board) { board.writeFile(kScreenDevice, std::string(4096, '\0')); },
                   0,
                   {"fpgaLoadScreenParamsBySpi: parse_emmc_block, blockNum = 0\n",
                    "fpgaLoadProcessHeron: fpgaLoadScreenParamsBySpi failed\n"},
                   "(absent)"},
        StageFault{"ClockNeverThere", Product::kHeron, false,
                   [](Board& board) { board.fpga().setSgmiiClock({.failures = -1}); }, 0,
                   times(5, kNoClock) + kNetworkFailed, "(absent)"},
        StageFault{"NegotiationNeverComplete",
                   Product::kHeron,
                   false,
                   [](Board& board) { board.fpga().setSgmiiNegotiation({.failures = -1}); },
                   0,
                   {},
                   "(absent)"},
        StageFault{"ProgramLineStuckInTheRecovery",
                   Product::kHeron,
                   false,
                   [](Board& board) {
                       board.fpga().setDdr({.after = 500ms + 1s});
                       failing(Call::kGpioSet, kControlLine)(board);
                   },
                   0,
                   {kBadDdr[0], "fpgaRecovery: PROG_B gpio 441 set failed\n"},
                   "(absent)"},
        StageFault{"DoneLowAfterTheRecovery", Product::kHeron, false,
                   [](Board& board) {
                       board.fpga().setDdr({.failures = -1, .notReady = 3});
                       board.flash().damage(40000, 1);
                   },
                   0,
                   times(1, {"fpgaRecovery: invalid fpga_ddr_state = 3\n",
                             "fpgaRecovery: fpgaCheckDone failed\n"}) +
                       times(2, {"fpgaRecovery: invalid fpga_ddr_state = 255\n",
                                 "fpgaRecovery: fpgaCheckDone failed\n"}) +
                       times(5, kNoClock) + kNetworkFailed,
                   "(absent)"},
        StageFault{"PhyResetFileMissing",
                   Product::kHeron,
                   false,
                   failing(Call::kOpen, "/sys/class/quilgpios/RTL8211FS_RSTN/value"),
                   0,
                   {"open failed! reset8211FS\n"},
                   "(absent)"},
        StageFault{"ResetPulseFailsOnce",
                   Product::kHeron,
                   false,
                   [](Board& board) {
                       without(kScreenDevice)(board);
                       failing(Call::kOpen, kSpiDevice, 2 + 3)(board);  // after two reads
                   },
                   0,
                   {"read_screen_paramter: open /dev/block/by-name/screen failed !!!\n",
                    "fpgaLoadScreenParamsBySpi: failed to read screen paramter\n",
                    "fpgaLoadProcessHeron: fpgaLoadScreenParamsBySpi failed\n",
                    "spi_send_data: open /dev/fpga_spi failed !!!\n",
                    "sendFpgaTxRxReset: send_rx_reset_high failed\n",
                    "fpgaPhySgmiiConfig: sendFpgaTxRxReset failed\n"},
                   "(absent)"},
        StageFault{"LinkAfterTheThirdReset", Product::kHeron, false,
                   [](Board& board) { board.phy().setDeadResets(2); }, 0, times(2, kNoLink),
                   "(absent)"},
        StageFault{"NoCable", Product::kHeron, false,
                   [](Board& board) { board.phy().setCable(false); }, 0,
                   times(5, kNoLink) + kNetworkFailed, "(absent)"},
        StageFault{
            "DriverCannotBeLoadedAgain", Product::kHeron, false,
            [](Board& board) { board.writeFile("/vendor_dlkm/lib/modules/dwmac-meson8b.ko", ""); },
            0,
            times(5, {"<readRtl8211fsPhyLink> the path /sys/class/ethernet/quilphyreg not "
                      "exist!\n",
                      "fpgaPhySgmiiConfig: readRtl8211fsPhyLink failed\n"}) +
                kNetworkFailed,
            "(absent)"}),
    [](const auto& row) { return row.param.name; });

INSTANTIATE_TEST_SUITE_P(
    KestrelAndWren, FpgaBootWith,
    testing::Values(StageFault{"KestrelWithoutItsImage",
                               Product::kKestrel,
                               false,
                               without("/vendor/firmware/fpga_Kestrel.bin"),
                               -1,
                               {"fpgaLoadProcessKestrel: hal_fpga_load_program_sync failed\n"},
                               "(absent)"},
                    StageFault{"KestrelWithADamagedImage",
                               Product::kKestrel,
                               false,
                               [](Board& board) {
                                   board.writeFile("/vendor/firmware/fpga_Kestrel.bin", "no image");
                               },
                               -1,
                               {"fpgaLoadProcessKestrel: hal_fpga_load_program_sync failed\n"},
                               "(absent)"},
                    StageFault{"KestrelWithoutAnAddress",
                               Product::kKestrel,
                               false,
                               failing(Call::kVendor, "bi_fpga_eth1_config_kestrel"),
                               -1,
                               {"fpgaLoadProcessKestrel: fpgaLoadScreenParamsByUdp failed\n"},
                               "(absent)"},
                    StageFault{"KestrelWithoutHexParameters",
                               Product::kKestrel,
                               false,
                               without("/dev/block/by-name/hexparam"),
                               -1,
                               {"fpgaLoadProcessKestrel: fpgaLoadScreenParamsByUdp failed\n"},
                               "(absent)"},
                    StageFault{"WrenUpdateWithoutItsImage",
                               Product::kWrenT507,
                               true,
                               without("/vendor/firmware/fpga_Wren_t507.bin"),
                               -1,
                               {"fpgaLoadProcessWren_t507: bi_fpga_active_update_program failed\n"},
                               "1"},
                    StageFault{"WrenUpdateOnAFlashThatCannotBeErased",
                               Product::kWrenT507,
                               true,
                               failing(Call::kFlashErase, kFlash),
                               -1,
                               {"fpgaLoadProcessWren_t507: bi_fpga_active_update_program failed\n"},
                               "1"},
                    StageFault{"WrenWithoutItsPartition",
                               Product::kWrenT507,
                               false,
                               without(kScreenDevice),
                               -1,
                               {"fpgaLoadProcessWren_t507: bi_fpga_load_parameter failed\n"},
                               "(absent)"},
                    StageFault{"WrenUpdatedButWithoutItsPartition",
                               Product::kWrenT507,
                               true,
                               without(kScreenDevice),
                               -1,
                               {"fpgaLoadProcessWren_t507: bi_fpga_load_parameter failed\n"},
                               "0"}),
    [](const auto& row) { return row.param.name; });

TEST(FpgaBoot, UpdateThatFailedOnceIsDoneAtTheNextBoot) {
    BootedBoard heron(Product::kHeron);
    heron.askForUpdate();
    heron.board.faults().add(
        {.call = Call::kFlashProgram, .path = kFlash, .error = EIO, .after = 20});
    EXPECT_EQ(heron.load(), -1);
    EXPECT_FALSE(heron.board.fpga().isConfigured());
    EXPECT_EQ(heron.load(), 0);
    EXPECT_EQ(heron.board.fpga().version(), "V2.1.0");
    EXPECT_EQ(heron.property(), "0");
    EXPECT_THAT(heron.board.violations(), IsEmpty());
}

TEST(FpgaBoot, SpiThatNeverAnswersLeavesAHeronWithoutParametersAndNetwork) {
    BootedBoard heron(Product::kHeron);
    failing(Call::kOpen, kSpiDevice, 0, -1)(heron.board);
    EXPECT_EQ(heron.load(), 0);
    EXPECT_THAT(heron.board.fpga().memory(), IsEmpty());
    EXPECT_FALSE(heron.board.phy().isLinkUp());
    EXPECT_EQ(heron.errors().front(), "readFpgaDdrState: open spi port /dev/fpga_spi failed.\n");
    EXPECT_EQ(heron.errors().back(), kNetworkFailed.front());
}

}  // namespace quil::tests
