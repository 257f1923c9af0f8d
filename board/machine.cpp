#include "board/machine.h"

#include <errno.h>

#include "board/core/kept_store.h"
#include "board/fpga/mtd_debug.h"

namespace quil::board {
namespace {

constexpr char kWiringFile[] = "/vendor/etc/product.ini";

// Takes the line's number from the product file, if it has one.
void takeLine(const IniReader& reader, int handle, const char* key, int& line) {
    const int number = reader.integer(handle, "fpga", key);
    if (number > 0) line = number;
}

// A comment behind the name, which is a part of the value, makes it no device's.
bool isDevicePath(const std::string& path) {
    return path.rfind("/dev/", 0) == 0 && path.find(' ') == std::string::npos;
}

// The parts are connected as the product file says at power-on.
Wiring wiringOf(const BoardServices& board) {
    Wiring wiring;
    IniReader reader;
    std::string text;
    board.readFile(kWiringFile, &text);
    const int handle = reader.loadText(text);
    if (const auto* path = reader.find(handle, "mcu", "mcu_uart_path")) {
        if (isDevicePath(*path)) wiring.uart = *path;
    }
    const int baud = reader.integer(handle, "mcu", "mcu_baud_rate");
    if (baud > 0) wiring.baud = baud;
    wiring.codecs = reader.integer(handle, "self_test", "audio_num");
    takeLine(reader, handle, "fpga_control_gpio", wiring.fpgaControl);
    takeLine(reader, handle, "fpga_config_gpio", wiring.fpgaConfig);
    takeLine(reader, handle, "fpga_done_gpio", wiring.fpgaDone);
    const auto* product = reader.find(handle, "product", "product");
    wiring.fpgaBootsFromFlash = product == nullptr || *product != nameOf(Product::kKestrel);
    wiring.mcu = &partOfProductFile(reader, handle);
    return wiring;
}

// Never destroyed: a thread that outlives its board still uses it when it returns from a wait.
Scheduler& theScheduler() {
    static Scheduler* scheduler = new Scheduler;
    return *scheduler;
}

std::shared_ptr<Store> storeOf(const std::filesystem::path& dir, const BoardOptions& options) {
    if (options.store) return options.store;
    return std::make_shared<KeptStore>(dir, options.keeping);
}

std::shared_ptr<Store> filesOf(const std::filesystem::path& dir, const BoardOptions& options) {
    if (options.store) return std::make_shared<FolderOfStore>(options.store, "rootfs");
    return std::make_shared<KeptStore>(dir / "rootfs", options.keeping);
}

// Adds the lines that the MCU is connected to.
GpioLines& withMcuLines(GpioLines& gpio) {
    gpio.add(kGpioBoot0, 0);
    gpio.add(kGpioNrst, 1);
    return gpio;
}

Fpga::Lines fpgaLines(GpioLines& gpio, const Wiring& wiring) {
    return {gpio.add(wiring.fpgaControl, 1), gpio.add(wiring.fpgaConfig, 1),
            gpio.add(wiring.fpgaDone, 0)};
}

}  // namespace

std::atomic<Machine*> g_poweredMachine{nullptr};

Machine::Machine(const std::filesystem::path& dir, BoardOptions opts)
    : BoardServices(theScheduler(), storeOf(dir, opts), dir / "rootfs", filesOf(dir, opts)),
      directory(dir),
      options(std::move(opts)),
      mWiring(wiringOf(*this)),
      probes(*this, mWiring.codecs),
      mcuUart(*this, mWiring.uart),
      mcu(*this, mcuUart, mWiring.baud),
      mcuChip(*this, *mWiring.mcu, mcuUart, withMcuLines(gpio), mcu),
      fpga(*this, fpgaLines(gpio, mWiring), flash, mWiring.fpgaBootsFromFlash),
      phy(*this, gpio.add(kPhyResetLine, 1), sysfs) {
    if (options.store) filesInMemory.emplace(options.store);
    phy.onReset([this] { fpga.phyWasReset(); });
    network.addCommands(shell);
    addMtdDebug(*this, shell, flash);
    network.powerOn();
    fpga.powerOn();
    power.onCut([this] {
        mcuChip.powerLost();
        mcuUart.powerLost();
        scheduler.powerLost();
    });
}

Machine::~Machine() = default;

// Board time goes on only while all threads wait. After many failures at the same instant, each
// further one takes a millisecond.
void Machine::readFailed() {
    constexpr int kAtOnceMost = 4096;
    constexpr Nanos kStep = std::chrono::milliseconds(1);
    const int error = errno;
    const Nanos now = scheduler.now();
    mFailedReadsAtOnce = now == mLastFailedRead ? mFailedReadsAtOnce + 1 : 0;
    mLastFailedRead = mFailedReadsAtOnce < kAtOnceMost ? now : now + kStep;
    scheduler.sleepUntil(mLastFailedRead, "its next read");
    errno = error;
}

bool Machine::interrupts(const char* call, const std::string& path, Nanos wait) {
    const auto after = chances.interruption(wait);
    if (!after) return false;
    scheduler.sleepFor(*after, call);
    trace.add(EventKind::kFault, path, std::string(call) + " is interrupted");
    return true;
}

Uart* Machine::uartAt(std::string_view path) { return mcuUart.path() == path ? &mcuUart : nullptr; }

OpenFile* Machine::openFile(int fd) {
    const auto found = files.find(fd);
    return found == files.end() ? nullptr : &found->second;
}

}  // namespace quil::board
