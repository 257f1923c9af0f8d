// The powered board: all its parts, as the C library calls see them.
#pragma once

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "board/board.h"
#include "board/core/lock.h"
#include "board/core/scheduler.h"
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

Scheduler& theScheduler();

struct Wiring;

class Machine {
  public:
    Machine(std::filesystem::path directory, BoardOptions options);
    ~Machine();

    void violation(const std::string& source, const std::string& text);
    // Where a board path lives on the workstation; nothing for paths that are not the board's.
    std::optional<std::filesystem::path> onHost(const char* path) const;
    std::filesystem::path hostPath(std::string_view boardPath) const;
    Uart* uartAt(std::string_view path);
    OpenFile* openFile(int fd);
    // Power was cut: the devices are frozen, and every call of the host fails at once, so that a
    // flow under way runs out without reaching anything.
    bool dead() const { return dead_.load(std::memory_order_relaxed); }
    void losePower();
    void readinessChanged() { scheduler.wakeAll(&files); }
    // Lets the time go by that a faulty call takes; the board's lock is held once.
    void spend(const Fault& fault) {
        scheduler.sleepUntil(scheduler.now() + fault.takes, "a call that fails");
    }

    // Lets time go on for a program that does nothing but read again. Keeps errno.
    void readFailed();

    const std::filesystem::path directory;
    const BoardOptions options;
    Trace trace;
    Scheduler& scheduler;
    Faults faults;
    Properties properties;
    ProductInformation productInformation;
    IniReader iniReader;
    Sysfs sysfs;
    GpioLines gpio{sysfs};
    Shell shell{*this};
    std::map<int, OpenFile> files;
    LentDevices lentDevices;
    std::vector<LogLine> log;
    std::vector<std::string> violations;
    std::unique_ptr<Uart> mcuUart;
    std::unique_ptr<McuApplication> mcu;
    std::unique_ptr<McuChip> mcuChip;
    std::unique_ptr<Probes> probes;
    Nanos deviceTime{0};  // waited for devices since power-on
    std::unique_ptr<SerialFlash> flash;
    std::unique_ptr<Fpga> fpga;
    std::unique_ptr<Phy> phy;
    std::unique_ptr<Network> network;
    std::unique_ptr<FpgaLibrary> fpgaLibrary;

  private:
    void wireFpga(const Wiring&);

    std::atomic<bool> dead_{false};
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
