// A whole board under an unmodified library: construct one to power it on.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "board/board_directory.h"
#include "board/core/chances.h"
#include "board/core/faults.h"
#include "board/core/schedule.h"
#include "board/core/scheduler.h"
#include "board/core/store.h"
#include "board/core/temporary_directory.h"
#include "board/core/trace.h"
#include "board/devices/gpio_lines.h"
#include "board/devices/ini_reader.h"
#include "board/devices/probes.h"
#include "board/devices/properties.h"
#include "board/devices/shell.h"
#include "board/devices/sysfs.h"
#include "board/devices/uart.h"
#include "board/fpga/fpga.h"
#include "board/fpga/fpga_library.h"
#include "board/fpga/network.h"
#include "board/fpga/phy.h"
#include "board/fpga/serial_flash.h"
#include "board/mcu/mcu_application.h"
#include "board/mcu/mcu_chip.h"

namespace quil::board {

struct BoardOptions {
    bool realtime = false;  // board time is real time, to watch or for outside programs
    int speed = 1;          // in real time: so many times as fast
    // Decides which thread runs when (core/schedule.h), and what the chances bring. 0: threads run
    // in the order in which they became runnable, and nothing is left to chance.
    uint64_t seed = 0;
    // What runs on the MCU of a board in a directory of its own; "": the shipped version.
    std::string flashedMcuVersion = {};
    Pct pct = {};
    uint64_t drawnSteps = UINT64_MAX;  // so many steps of the threads are drawn, the rest as at 0
    ChanceRates chances = {};
    // Where the board keeps all its files, instead of its directory: in memory.
    std::shared_ptr<OverlayStore> store = {};
    Standstill standstill = {};           // threads that wait for each other
    Keeping keeping = Keeping::kScratch;  // of what the board keeps in its directory
};

struct LogLine {
    int priority;
    std::string tag;
    std::string text;
};

class Machine;

// Powered on by construction, off by destruction. One at a time in a process. The constructing
// thread lives in board time, and so do the threads that it starts from then on; join all of them
// before the board is destroyed.
class Board {
  public:
    explicit Board(Product = Product::kHeron, BoardOptions = {});  // in a directory of its own
    explicit Board(const std::filesystem::path& dir, BoardOptions = {});
    // In memory alone. What is below the store may come from factoryBoard().
    explicit Board(std::shared_ptr<OverlayStore>, BoardOptions = {});
    ~Board();
    Board(const Board&) = delete;
    Board& operator=(const Board&) = delete;

    const std::filesystem::path& directory() const;
    std::filesystem::path hostPath(std::string_view boardPath) const;
    void writeFile(std::string_view boardPath, std::string_view content);
    // True if this number stands for an open device or file of the board.
    bool isOpen(int fd) const;
    // From now on this path is the workstation's device; what is transferred is traced. The gate
    // is asked before each write to it, with the board's lock held; false: the write fails.
    using DeviceGate = std::function<bool(std::span<const uint8_t>)>;
    void lendDevice(const std::string& path, DeviceGate gate = nullptr);

    Nanos now() const;   // since power-on
    void runFor(Nanos);  // the calling thread waits in board time
    // The calling thread waits until nothing is due any more, or for that time: then false.
    bool runUntilIdle(Nanos most);
    // Calls the function after that time, with the board's lock held, on any thread.
    void after(Nanos, std::function<void()>);
    Nanos deviceTime() const;  // since power-on: what the program has spent waiting for devices

    // Cuts the power at a later event; up to there the run is the same as without the cut. From
    // then on the calls of the host fail; destroy the board and make a new one in its directory to
    // power it on again. trace().count() of an uncut run is the number of its events.
    void cutPowerAt(PowerCut);
    // Cuts it at the next call of the host or timer; the reason is recorded. From any thread.
    void cutPowerSoon(const char* why);
    bool powerIsCut() const;
    // From now on `told` gets each cut that there could be, and what the parts' files would hold
    // after it. It is called with the board's lock held. Null ends it. Needs BoardOptions::store.
    void onEachCut(std::function<void(const PowerCut&, const OverlayStore::Files&)> told);

    Trace& trace();
    Properties& properties();
    Faults& faults();
    McuApplication& mcu();  // what runs on the MCU if its flash holds a valid image
    McuChip& mcuChip();
    Uart& mcuUart();
    ProductInformation& productInformation();
    IniReader& iniReader();
    Probes& probes();
    GpioLines& gpio();
    Shell& shell();
    Sysfs& sysfs();
    Fpga& fpga();
    SerialFlash& flash();
    Phy& phy();
    Network& network();
    FpgaLibrary& fpgaLibrary();

    std::vector<std::string> log() const;
    std::vector<std::string> log(int priority) const;
    std::vector<LogLine> logLines() const;
    LogLine lastLogLine() const;  // priority 0 when there is none
    // As "part: text"; of each kind the first few, and how many more there were.
    std::vector<std::string> violations() const;
    void clearLog();

  private:
    std::unique_ptr<TemporaryDirectory> mTemporary;  // none when the directory is the caller's
    std::unique_ptr<Machine> mMachine;
};

}  // namespace quil::board
