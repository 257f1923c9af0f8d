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
#include "board/devices/memory_files.h"
#include "board/fpga/fpga_library.h"

namespace quil::board {

// 2026-01-01T00:00:00Z: what the wall clock shows at power-on.
constexpr int64_t kPowerOnEpoch = 1767225600;

struct OpenFile {
    std::string path;  // as the board knows it
    Uart* uart = nullptr;
    int flags = 0;
    std::shared_ptr<FileHandle> handle = nullptr;  // of an attribute, or a file in memory
    Fpga* fpga = nullptr;

    bool isAttribute() const { return dynamic_cast<const SysfsHandle*>(handle.get()) != nullptr; }
};

// What the product file says about how the parts are connected.
struct Wiring {
    std::string uart = "/dev/ttyS3";
    int baud = 115200;
    int codecs = 0;
    int fpgaControl = 441, fpgaConfig = 442, fpgaDone = 443;
    bool fpgaBootsFromFlash = true;
    const McuPart* mcu = nullptr;
};

class Machine : public BoardServices {
  public:
    Machine(const std::filesystem::path& directory, BoardOptions options);
    ~Machine();

    // Of a path of the board; with filesInMemory.
    std::string nameInMemory(std::string_view boardPath) const {
        return "rootfs/" + belowRoot(boardPath);
    }
    Uart* uartAt(std::string_view path);
    OpenFile* openFile(int fd);
    // Power was cut: the devices are frozen, and every call of the host fails at once, so that the
    // program's work ends without any effect.
    bool dead() const { return power.isCut(); }
    // True if chance has it that a signal interrupts the call, some time into its wait of at most
    // that length; that time has passed then.
    bool interrupts(const char* call, const std::string& path, Nanos wait = Nanos(0));
    // Waits for the time that a faulty call takes.
    void spend(const Fault& fault) { scheduler.sleepFor(fault.takes, "a call that fails"); }
    // Called after a failed read, so that a program that only tries again does not stop board time.
    // Keeps errno.
    void readFailed();

    const std::filesystem::path directory;
    const BoardOptions options;
    std::optional<MemoryFiles> filesInMemory;  // unless they are the workstation's
    std::map<int, OpenFile> files;
    std::vector<LogLine> log;
    Chances chances{options.realtime ? 0 : options.seed, options.chances};

  private:
    const Wiring mWiring;

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
    Nanos mLastFailedRead{-1};
    int mFailedReadsAtOnce = 0;
};

extern std::atomic<Machine*> g_poweredMachine;
inline Machine* poweredMachine() { return g_poweredMachine.load(std::memory_order_relaxed); }

// The powered machine, for a C library call of the program; null without power, and for calls that
// the board itself makes. Another thread may have its turn first.
inline Machine* machineForCall() {
    Machine* machine = poweredMachine();
    if (machine == nullptr || BoardLock::mine()) return nullptr;
    Scheduler::arrive();
    if (Scheduler::attached()) {
        machine->scheduler.preempt();
        machine = poweredMachine();
        if (machine == nullptr) return nullptr;
    }
    if (machine->trace.cutIsDue()) machine->trace.cutIfDue();
    return machine;
}

// The same, but null for threads from outside board time. Those may sleep or ask for the time at
// any moment, also while the machine is destroyed, and so must not touch it.
inline Machine* machineForTurns() {
    return poweredMachine() != nullptr && Scheduler::attached() ? machineForCall() : nullptr;
}

}  // namespace quil::board
