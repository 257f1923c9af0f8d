// The PHY, the Ethernet driver and eth1, and the closed FPGA library.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "board/board.h"
#include "board/fpga/screen_partition.h"
#include "platform/vendor/include/quil_fpga.h"
#include "platform/vendor/include/quil_hal.h"

namespace {

using namespace quil::board;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

constexpr char kLoad[] = "insmod /vendor_dlkm/lib/modules/dwmac-meson8b.ko";
constexpr char kReset[] = "/sys/class/quilgpios/RTL8211FS_RSTN/value";
constexpr char kStatus[] = "/sys/class/ethernet/quilphyreg";

class BoardNetwork : public testing::Test {
  protected:
    static int run(const std::string& line) {
        return system((line + " 2> /dev/null").c_str()) >> 8;
    }
    static std::string status() {
        char text[64] = {};
        const int32_t length = hal_sys_read(kStatus, text, sizeof(text));
        return length < 0 ? std::to_string(length) : std::string(text, static_cast<size_t>(length));
    }
    void resetPhy() {
        run(std::string("echo 0 > ") + kReset);
        run(std::string("echo 1 > ") + kReset);
        board.runFor(150ms);
    }
    static int setUpPhy() {
        return run("echo w 0x1f 0xd08 > /sys/class/ethernet/phyreg") +
               run("echo r 0x10 > /sys/class/ethernet/phyreg") +
               run("echo w 0x10 0x5e > /sys/class/ethernet/phyreg");
    }

    Board board;
};

TEST_F(BoardNetwork, LinkComesUpOnceThePhyIsResetAndSetUp) {
    EXPECT_EQ(status(), "0x103\n");
    resetPhy();
    EXPECT_EQ(setUpPhy(), 0);
    board.runFor(19ms);
    EXPECT_EQ(status(), "0x103\n");
    board.runFor(1ms);
    EXPECT_EQ(status(), "0x907\n");
    EXPECT_TRUE(board.phy().isLinkUp());
    EXPECT_EQ(board.phy().registerAt(0xd08, 0x10), 0x5e);
    EXPECT_THAT(board.violations(), IsEmpty());
}

TEST_F(BoardNetwork, ResetTakesTheLinkDownAndTheFpgaHasToNegotiateAgain) {
    resetPhy();
    setUpPhy();
    board.runFor(1s);
    resetPhy();
    board.runFor(1s);
    EXPECT_EQ(status(), "0x103\n");
    EXPECT_EQ(board.phy().registerAt(0xd08, 0x10), 0);
    EXPECT_EQ(board.fpga().registerNow(Fpga::kSgmiiNegotiation), 0);
}

TEST_F(BoardNetwork, RegistersAreNotThereBeforeThePhyHasStarted) {
    run(std::string("echo 0 > ") + kReset);
    run(std::string("echo 1 > ") + kReset);
    board.runFor(149ms);
    EXPECT_EQ(run("echo w 0x1f 0xd08 > /sys/class/ethernet/phyreg"), 1);
    EXPECT_THAT(board.violations(),
                ElementsAre("phy: a register is accessed before the PHY has started"));
}

TEST_F(BoardNetwork, RegisterFileShowsWhatWasReadLast) {
    resetPhy();
    setUpPhy();
    EXPECT_EQ(run("echo r 0x10 > /sys/class/ethernet/phyreg"), 0);
    char text[64] = {};
    EXPECT_EQ(hal_sys_read("/sys/class/ethernet/phyreg", text, sizeof(text)), 12);
    EXPECT_STREQ(text, "0x10 = 0x5e\n");
}

TEST_F(BoardNetwork, RegisterFileRefusesWhatItDoesNotUnderstand) {
    resetPhy();
    for (const char* text :
         {"w 0x1f", "w 0x1f 3336", "w 0x20 0x1", "w 0x10 0x10000", "x 0x10", "r", "r 0x10 0x5e"}) {
        EXPECT_EQ(run(std::string("echo ") + text + " > /sys/class/ethernet/phyreg"), 1) << text;
    }
    EXPECT_THAT(board.violations(), SizeIs(7));
}

TEST_F(BoardNetwork, CableAndDeadResetsKeepTheLinkDown) {
    board.phy().setCable(false);
    resetPhy();
    setUpPhy();
    board.runFor(1s);
    EXPECT_FALSE(board.phy().isLinkUp());
    board.phy().setCable(true);
    EXPECT_TRUE(board.phy().isLinkUp());
    board.phy().setDeadResets(1);
    EXPECT_FALSE(board.phy().isLinkUp());
    for (const bool up : {false, true}) {
        resetPhy();
        setUpPhy();
        board.runFor(1s);
        EXPECT_EQ(board.phy().isLinkUp(), up);
    }
}

TEST_F(BoardNetwork, StatusTextMayBeAnythingOfAnyLength) {
    board.phy().setStatusText(std::string(70, 'x'));
    EXPECT_EQ(status(), std::string(64, 'x'));
}

TEST_F(BoardNetwork, DriverBringsThePhysFilesAndTakesThemAway) {
    EXPECT_EQ(access(kStatus, F_OK), 0);
    EXPECT_EQ(run("rmmod dwmac_meson8b"), 0);
    EXPECT_EQ(access(kStatus, F_OK), -1);
    EXPECT_EQ(status(), "-2");
    EXPECT_EQ(run("rmmod dwmac_meson8b"), 1);
    EXPECT_EQ(run(kLoad), 0);
    EXPECT_EQ(access(kStatus, F_OK), 0);
    EXPECT_EQ(run(kLoad), 1);
    EXPECT_EQ(board.network().driverLoads(), 2);
    EXPECT_EQ(board.deviceTime(), 2 * 30ms + 2 * 80ms);
}

TEST_F(BoardNetwork, ModuleThatIsMissingOrEmptyIsNotLoaded) {
    run("rmmod dwmac_meson8b");
    board.writeFile("/vendor_dlkm/lib/modules/dwmac-meson8b.ko", "");
    EXPECT_EQ(run(kLoad), 1);
    EXPECT_EQ(run("insmod /vendor_dlkm/lib/modules/none.ko"), 1);
    EXPECT_FALSE(board.network().isDriverLoaded());
}

TEST_F(BoardNetwork, Eth1HasItsAddressUntilTheDriverGoes) {
    EXPECT_EQ(run("ifconfig eth1 240.10.10.10 netmask 255.255.255.0 up"), 0);
    EXPECT_EQ(board.network().eth1().address, "240.10.10.10");
    EXPECT_EQ(board.network().eth1().netmask, "255.255.255.0");
    EXPECT_TRUE(board.network().eth1().up);
    run("rmmod dwmac_meson8b");
    EXPECT_FALSE(board.network().eth1().up);
    EXPECT_EQ(run("ifconfig eth1 240.10.10.10 netmask 255.255.255.0 up"), 1);
    EXPECT_EQ(run("ifconfig eth0 up"), 1);
}

TEST_F(BoardNetwork, InjectedFaultsMeetTheSysfsReads) {
    board.faults().add({.call = Call::kOpen, .path = kStatus, .error = EACCES});
    board.faults().add({.call = Call::kRead, .path = kStatus, .error = EIO});
    board.faults().add({.call = Call::kRead, .path = kStatus, .shortTo = 3});
    EXPECT_EQ(status(), "-13");
    EXPECT_EQ(status(), "-5");
    EXPECT_EQ(status(), "0x1");
    EXPECT_EQ(hal_sys_read("/sys/class/none", nullptr, 0), -EINVAL);
}

TEST(BoardFpgaLibrary, SendsEveryBlockOfTheScreenByUdp) {
    Board board(Product::kKestrel);
    ASSERT_EQ(hal_fpga_load_program_sync("/dev/fpga_spi", "/vendor/firmware/fpga_Kestrel.bin"), 0);
    EXPECT_EQ(bi_fpga_load_screen_params_by_udp("screen", "hexparam"), -ENETDOWN);
    EXPECT_EQ(bi_fpga_eth1_config_kestrel(), 0);
    EXPECT_EQ(bi_fpga_load_screen_params_by_udp("screen", "hexparam"), 0);
    for (const ScreenBlock& block : factoryScreen()) {
        EXPECT_EQ(board.fpga().memoryAt(block.address), block.data.front());
        const auto last = static_cast<uint32_t>(block.address + block.data.size() - 1);
        EXPECT_EQ(board.fpga().memoryAt(last), block.data.back());
    }
    EXPECT_TRUE(board.fpga().isUdpMode());
    EXPECT_EQ(board.trace().events(EventKind::kVendor).back().text, "screen, hexparam");
}

TEST(BoardFpgaLibrary, FailsWithoutItsFilesItsDriverOrAGoodImage) {
    Board board(Product::kKestrel);
    EXPECT_EQ(hal_fpga_load_program_sync("/dev/none", "/vendor/firmware/fpga_Kestrel.bin"),
              -ENODEV);
    EXPECT_EQ(hal_fpga_load_program_sync("/dev/fpga_spi", "/vendor/firmware/none"), -ENOENT);
    board.writeFile("/vendor/firmware/bad", "no image");
    EXPECT_EQ(hal_fpga_load_program_sync("/dev/fpga_spi", "/vendor/firmware/bad"), -EIO);
    EXPECT_EQ(fpgaSwitchGmacToUdp(), -EIO);
    EXPECT_EQ(bi_fpga_eth1_config_kestrel(), 0);
    EXPECT_EQ(bi_fpga_load_screen_params_by_udp("screen", "none"), -ENOENT);
    EXPECT_EQ(bi_fpga_load_screen_params_by_udp("screen", "hexparam"), -EIO);
    EXPECT_EQ(bi_fpga_load_parameter(), -EIO);
    hal_fpga_load_program_sync("/dev/fpga_spi", "/vendor/firmware/fpga_Kestrel.bin");
    EXPECT_EQ(bi_fpga_load_screen_params_by_udp("none", "hexparam"), -ENOENT);
    board.writeFile("/dev/block/by-name/screen", std::string(8, '\0'));
    EXPECT_EQ(bi_fpga_load_parameter(), -EINVAL);
}

TEST(BoardFpgaLibrary, ProgramsThePendingImageOfAWren) {
    Board board(Product::kWrenT507);
    EXPECT_EQ(board.fpga().version(), "V1.3.2");
    EXPECT_EQ(bi_fpga_active_update_program(), 0);
    EXPECT_EQ(board.fpga().version(), "V1.4.0");
    EXPECT_EQ(hal_gpio_getvalue(143), 1);
    EXPECT_THAT(board.violations(), IsEmpty());
    EXPECT_EQ(bi_fpga_load_parameter(), 0);
    EXPECT_EQ(board.fpga().memoryAt(0x10000100), factoryScreen().at(14).data.front());
}

TEST(BoardFpgaLibrary, UpdateOfAWrenFailsWithABadImageOrFlash) {
    Board board(Product::kWrenT507);
    board.faults().add({.call = Call::kFlashErase, .path = "/dev/mtd0", .error = EIO});
    EXPECT_EQ(bi_fpga_active_update_program(), -EIO);
    board.writeFile("/vendor/firmware/fpga_Wren_t507.bin", std::string(100, 'x'));
    EXPECT_EQ(bi_fpga_active_update_program(), -EIO);
    board.writeFile("/vendor/firmware/fpga_Wren_t507.bin", "");
    EXPECT_EQ(bi_fpga_active_update_program(), -ENOENT);
}

TEST(BoardFpgaLibrary, InjectedFaultsMeetItsFunctionsByName) {
    Board board;
    board.faults().add({.call = Call::kVendor, .path = "fpgaSwitchGmacToUdp", .error = ETIMEDOUT});
    EXPECT_EQ(fpgaSwitchGmacToUdp(), -ETIMEDOUT);
    EXPECT_FALSE(board.fpga().isUdpMode());
    EXPECT_EQ(fpgaSwitchGmacToUdp(), 0);
    EXPECT_TRUE(board.fpga().isUdpMode());
}

TEST(BoardFpgaLibrary, NobodyAnswersWithoutPower) {
    EXPECT_EQ(hal_gpio_setvalue(441, 0), -1);
    EXPECT_EQ(bi_fpga_load_parameter(), -1);
}

TEST(ScreenPartition, IsWrittenAndReadBlockByBlock) {
    const std::vector<ScreenBlock> blocks = {{0x10000100, {1, 2, 3}}, {0x10400000, {9}}};
    const std::string bytes = makeScreenPartition(blocks);
    EXPECT_EQ(bytes, std::string("\0\0\0\2\x10\0\1\0\0\0\0\3\1\2\3\x10\x40\0\0\0\0\0\1\x09", 24));
    const auto read =
        readScreenPartition({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size() - 1});
    ASSERT_EQ(read.size(), 1U);
    EXPECT_EQ(read[0].address, 0x10000100U);
    EXPECT_THAT(read[0].data, ElementsAre(1, 2, 3));
}

}  // namespace
