// The powered board: all its parts, as the C library calls see them.
#pragma once

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "board/board.h"
#include "board/core/services.h"
#include "board/devices/lent_devices.h"
#include "board/fpga/fpga_library.h"

namespace quil::board {

// 2026-01-01T00:00:00Z: what the wall clock shows at power-on.
constexpr int64_t kPowerOnEpoch = 1767225600;

struct OpenFile {
    std::string path;  // as the board knows it
    Uart* uart = nullptr;
    int flags = 0;
    std::shared_ptr<SysfsHandle> sysfs = nullptr;
    Fpga* fpga = nullptr;
};

// What the product file says about how the parts are connected.
struct Wiring {
    std::string uart = "/dev/ttyS3";
    int baud = 115200;
    int codecs = 0;
    int fpgaControl = 441, fpgaConfig = 442, fpgaDone = 443;
    bool fpgaBootsFromFlash = true;
};

class Machine : public BoardServices {
  public:
    Machine(const std::filesystem::path& directory, BoardOptions options);
    ~Machine();

    Uart* uartAt(std::string_view path);
    OpenFile* openFile(int fd);
    // Power was cut: the devices are frozen, and every call of the host fails at once, so that a
    // flow under way runs out without reaching anything.
    bool dead() const { return power.isCut(); }
    // Lets the time go by that a faulty call takes; the board's lock is held once.
    void spend(const Fault& fault) { scheduler.sleepFor(fault.takes, "a call that fails"); }
    // Lets time go on for a program that does nothing but read again. Keeps errno.
    void readFailed();

    const std::filesystem::path directory;
    const BoardOptions options;
    std::map<int, OpenFile> files;
    std::vector<LogLine> log;

  private:
    const Wiring wiring_;

  public:
    Properties properties{*this};
    ProductInformation productInformation{*this};
    IniReader iniReader;
    Sysfs sysfs;
    GpioLines gpio{*this, sysfs};
    LentDevices lentDevices{*this};
    Probes probes;
    Shell shell{*this, sysfs, probes};
    Uart mcuUart;
    McuApplication mcu;
    McuChip mcuChip;
    SerialFlash flash{*this};
    Fpga fpga;
    Phy phy;
    Network network{*this, phy};
    FpgaLibrary fpgaLibrary{*this, {sysfs, gpio, fpga, flash, network}};

  private:
    Nanos lastFailedRead_{-1};
    int failedReadsAtOnce_ = 0;
};

extern std::atomic<Machine*> g_poweredMachine;
inline Machine* poweredMachine() { return g_poweredMachine.load(std::memory_order_relaxed); }

// The powered machine, for a C library call made by the program; null when the call is none of the
// board's business (no power, or the board's own call).
inline Machine* machineForCall() {
    Machine* machine = poweredMachine();
    if (machine == nullptr || BoardLock::mine()) return nullptr;
    Scheduler::arrive();
    if (machine->trace.cutIsDue()) machine->trace.cutIfDue();
    return machine;
}

// The same, for threads that take turns. The others may sleep or ask for the time whenever they
// like, also while the power goes: they do not touch the machine at all.
inline Machine* machineForTurns() {
    return poweredMachine() != nullptr && Scheduler::attached() ? machineForCall() : nullptr;
}

}  // namespace quil::board
