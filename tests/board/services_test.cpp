// Parts of the board alone, with the services of a board around them and no powered machine: none
// of their calls goes through the C library.
#include "board/core/services.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <termios.h>

#include "board/devices/gpio_lines.h"
#include "board/devices/probes.h"
#include "board/devices/properties.h"
#include "board/devices/shell.h"
#include "board/devices/uart.h"
#include "board/fpga/fpga.h"
#include "board/fpga/fpga_image.h"
#include "board/fpga/phy.h"
#include "board/fpga/serial_flash.h"

namespace {

using namespace quil::board;
using namespace std::chrono_literals;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<uint8_t>;

class BoardPartAlone : public testing::Test {
  protected:
    BoardPartAlone() { board.powerOn(); }
    ~BoardPartAlone() override { board.powerOff(); }

    void runFor(Nanos duration) {
        const Guard guard(boardLock());
        scheduler.sleepFor(duration, "the test");
    }
    std::vector<std::string> events(EventKind kind) const {
        std::vector<std::string> texts;
        for (const Event& event : board.trace.events(kind)) {
            texts.push_back(event.source + ": " + event.text);
        }
        return texts;
    }

    Scheduler scheduler;
    const std::shared_ptr<Store> files = std::make_shared<MemoryStore>();
    BoardServices board{scheduler, std::make_shared<MemoryStore>(), {}, files};
};

struct EchoingPeer : UartPeer {
    explicit EchoingPeer(Uart& uart) : uart(uart) { uart.attach(this); }
    ~EchoingPeer() override { uart.attach(nullptr); }
    void receive(uint8_t byte) override { uart.sendToHost({byte}); }
    LineSettings lineSettings() const override { return uart.hostLine(); }
    Uart& uart;
};

TEST_F(BoardPartAlone, UartCarriesBytesBothWaysInTheTimeOfItsLine) {
    Uart uart(board, "/dev/ttyS9");
    const EchoingPeer peer(uart);
    uart.opened();
    const Guard guard(boardLock());
    EXPECT_EQ(uart.hostWrite(Bytes{0x55, 0xAA}.data(), 2, false), 2);
    uint8_t heard = 0;
    EXPECT_EQ(uart.hostRead(&heard, 1, false), 1);
    EXPECT_EQ(heard, 0x55);
    EXPECT_EQ(scheduler.now(), 2 * LineSettings{}.byteTime());
    EXPECT_THAT(events(EventKind::kUartTx), ElementsAre("/dev/ttyS9: 2 bytes"));
}

TEST_F(BoardPartAlone, SerialFlashKeepsItsCellsInTheStore) {
    {
        SerialFlash flash(board);
        flash.preload("\x12\x34");
        EXPECT_EQ(flash.program(2, Bytes{0x56}), 0);
        EXPECT_EQ(scheduler.now(), SerialFlash::kPageProgram);
        EXPECT_EQ(flash.program(2, Bytes{0x78}), 0);
    }
    EXPECT_EQ(board.store->read("mtd0"), std::string("\x12\x34\x50"));
    EXPECT_THAT(board.violations.texts(), ElementsAre("/dev/mtd0: page 0x2 is not erased"));
    EXPECT_THAT(SerialFlash(board).read(0, 4), ElementsAre(0x12, 0x34, 0x50, 0xFF));
}

TEST_F(BoardPartAlone, PowerThatIsCutInsideAnEraseLeavesPartOfItDone) {
    SerialFlash flash(board);
    flash.preload(std::string(SerialFlash::kSector, '\0'));
    board.trace.cutPowerAt({0, CutPosition::kInside});
    EXPECT_EQ(flash.erase(0, SerialFlash::kSector), EIO);
    EXPECT_TRUE(board.power.isCut());
    const auto cells = flash.read(0, SerialFlash::kSector);
    EXPECT_EQ(cells.front(), 0xFF);
    EXPECT_EQ(cells.back(), 0x00);
}

TEST_F(BoardPartAlone, FpgaConfiguresItselfFromItsFlashWhenItsLinesRise) {
    Sysfs sysfs;
    GpioLines gpio(board, sysfs);
    SerialFlash flash(board);
    Fpga fpga(board, {gpio.add(1, 0), gpio.add(2, 1), gpio.add(3, 0)}, flash, true);
    fpga.powerOn();
    EXPECT_FALSE(fpga.isConfigured());
    flash.preload(makeFpgaImage("V9.9.9", 4096));
    EXPECT_EQ(gpio.at(1).drive(1), 0);
    runFor(100ms);
    EXPECT_TRUE(fpga.isConfigured());
    EXPECT_EQ(fpga.version(), "V9.9.9");
    EXPECT_EQ(gpio.at(3).level(), 1);
    EXPECT_THAT(events(EventKind::kGpio), ElementsAre("gpio 1: 1", "gpio 3: 1"));
    EXPECT_THAT(board.violations.texts(), IsEmpty());
}

TEST_F(BoardPartAlone, PhyComesUpOnlyAfterItsResetItsDriverAndItsSetUp) {
    Sysfs sysfs;
    GpioLines gpio(board, sysfs);
    Phy phy(board, gpio.add(kPhyResetLine, 0), sysfs);
    phy.driverLoaded();
    EXPECT_EQ(gpio.at(kPhyResetLine).drive(1), 0);
    runFor(Phy::kStartUp);
    for (const std::string line : {"w 0x1f 0xd08", "w 0x10 0x5e"}) {
        const Guard guard(boardLock());
        EXPECT_EQ(sysfs.open(kPhyRegisters)->write(line.data(), line.size()),
                  static_cast<ssize_t>(line.size()));
    }
    EXPECT_FALSE(phy.isLinkUp());
    runFor(Phy::kLinkTraining);
    EXPECT_TRUE(phy.isLinkUp());
    EXPECT_THAT(board.violations.texts(), IsEmpty());
}

TEST_F(BoardPartAlone, ShellMovesALineAndTakesTheTimeOfASleep) {
    Sysfs sysfs;
    GpioLines gpio(board, sysfs);
    const Probes probes(board, 1);
    Shell shell(board, sysfs, probes);
    gpio.add("RESET", 0);
    EXPECT_EQ(shell.run("sleep 2; echo 1 > /sys/class/quilgpios/RESET/value"), 0);
    EXPECT_EQ(gpio.at("RESET").level(), 1);
    EXPECT_EQ(scheduler.now(), 2s);
}

TEST_F(BoardPartAlone, ShellKeepsItsFilesInTheStore) {
    Sysfs sysfs;
    const Probes probes(board, 1);
    Shell shell(board, sysfs, probes);
    EXPECT_EQ(shell.run("echo one > /opt/a; echo two >> /opt/a; cat /opt/a > b"), 0);
    EXPECT_EQ(files->read("opt/a"), "one\ntwo\n");
    EXPECT_EQ(files->read("b"), "one\ntwo\n");
}

TEST_F(BoardPartAlone, PropertyThatIsSetForOneRunIsNotKept) {
    Properties properties(board);
    properties.set("persist.a", "1");
    properties.setForThisRun("persist.a", "2");
    EXPECT_EQ(properties.get("persist.a"), "2");
    properties.set("persist.b", "3");
    EXPECT_EQ(board.store->read("properties"), "persist.a=1\npersist.b=3\n");
}

// What was found last is kept at hand: each change has to be seen all the same.
TEST_F(BoardPartAlone, PropertyThatIsReadAgainHasTheValueOfTheLastChange) {
    Properties properties(board);
    const auto read = [&] { return properties.get("persist.a", "none"); };
    std::vector<std::string> seen = {read(), read()};
    properties.set("persist.a", "1");
    seen.push_back(read());
    properties.setForThisRun("persist.a", "2");
    seen.push_back(read());
    EXPECT_EQ(properties.get("persist.b", "other"), "other");
    seen.push_back(read());
    properties.dropForThisRun("persist.a");
    seen.push_back(read());
    properties.set("persist.a", "");
    seen.push_back(read());
    EXPECT_THAT(seen, ElementsAre("none", "none", "1", "2", "2", "1", "none"));
    EXPECT_EQ(properties.get("", "empty"), "empty");
}

TEST_F(BoardPartAlone, PropertiesAndProbesOutliveThePartsThatKeepThem) {
    Properties(board).set("persist.a", "1");
    Probes(board, 1).setHealth(kRtc, Health::kFaulty);
    EXPECT_EQ(Properties(board).get("persist.a"), "1");
    EXPECT_EQ(Probes(board, 1).probe(kRtc), -EIO);
    EXPECT_EQ(board.store->read("properties"), "persist.a=1\n");
    EXPECT_EQ(board.store->read("parts"), "rtc = faulty\n");
}

TEST_F(BoardPartAlone, WithoutPowerNothingIsRecorded) {
    board.powerOff();
    Properties(board).set("persist.a", "1");
    board.violation("part", "misused");
    EXPECT_EQ(board.trace.count(), 0U);
    EXPECT_THAT(board.violations.texts(), IsEmpty());
}

}  // namespace
