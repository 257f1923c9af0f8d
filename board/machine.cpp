#include "board/machine.h"

#include <errno.h>

#include <array>

#include "board/fpga/mtd_debug.h"

namespace quil::board {
namespace {

constexpr std::array<std::string_view, 10> kBoardPaths = {"/vendor/",
                                                          "/dev/ttyS",
                                                          "/vendor_dlkm/",
                                                          "/dev/fpga_spi",
                                                          "/dev/block/by-name/",
                                                          "/dev/mtd",
                                                          "/sys/class/quilgpios/",
                                                          "/sys/class/ethernet/",
                                                          "/sdcard/",
                                                          "/opt/"};

}  // namespace

struct Wiring {
    std::string uart = "/dev/ttyS3";
    int baud = 115200;
    int codecs = 0;
    int fpgaControl = 441, fpgaConfig = 442, fpgaDone = 443;
    bool fpgaBootsFromFlash = true;
};

namespace {

// A line that the product file names, or the board's own number for it.
void takeLine(const IniReader& reader, int handle, const char* key, int& line) {
    const int number = reader.integer(handle, "fpga", key);
    if (number > 0) line = number;
}

// The wiring follows the product file that stands in the board's file system at power-on.
Wiring wiringOf(const std::filesystem::path& productFile) {
    Wiring wiring;
    IniReader reader;
    const int handle = reader.load(productFile);
    if (const auto* path = reader.find(handle, "mcu", "mcu_uart_path")) {
        if (path->rfind("/dev/", 0) == 0) wiring.uart = *path;
    }
    const int baud = reader.integer(handle, "mcu", "mcu_baud_rate");
    if (baud > 0) wiring.baud = baud;
    wiring.codecs = reader.integer(handle, "self_test", "audio_num");
    takeLine(reader, handle, "fpga_control_gpio", wiring.fpgaControl);
    takeLine(reader, handle, "fpga_config_gpio", wiring.fpgaConfig);
    takeLine(reader, handle, "fpga_done_gpio", wiring.fpgaDone);
    const auto* product = reader.find(handle, "product", "product");
    wiring.fpgaBootsFromFlash = product == nullptr || *product != nameOf(Product::kKestrel);
    return wiring;
}

}  // namespace

std::atomic<Machine*> g_poweredMachine{nullptr};

// Never destroyed: a thread that outlives its board still returns through it.
Scheduler& theScheduler() {
    static Scheduler* scheduler = new Scheduler;
    return *scheduler;
}

Machine::Machine(std::filesystem::path dir, BoardOptions opts)
    : directory(std::move(dir)),
      options(opts),
      scheduler(theScheduler()),
      properties(directory / "properties"),
      productInformation(directory / "product_information") {
    const Wiring wiring = wiringOf(hostPath("/vendor/etc/product.ini"));
    gpio.add(kGpioBoot0, 0);
    gpio.add(kGpioNrst, 1);
    mcuUart = std::make_unique<Uart>(wiring.uart);
    mcu = std::make_unique<McuApplication>(directory / "mcu", *mcuUart, wiring.baud);
    const McuPart& part = partOfProductFile(hostPath("/vendor/etc/product.ini"));
    mcuChip = std::make_unique<McuChip>(part, directory / "mcu", *mcuUart, gpio, *mcu);
    probes = std::make_unique<Probes>(directory / "parts", wiring.codecs);
    wireFpga(wiring);
}

void Machine::wireFpga(const Wiring& wiring) {
    const Fpga::Lines lines = {gpio.add(wiring.fpgaControl, 1), gpio.add(wiring.fpgaConfig, 1),
                               gpio.add(wiring.fpgaDone, 0)};
    flash = std::make_unique<SerialFlash>(directory / "mtd0");
    fpga = std::make_unique<Fpga>(lines, *flash, wiring.fpgaBootsFromFlash);
    phy = std::make_unique<Phy>(gpio.add(kPhyResetLine, 1), sysfs);
    phy->onReset([this] { fpga->phyWasReset(); });
    network = std::make_unique<Network>(*phy);
    network->addCommands(shell);
    addMtdDebug(shell, *flash);
    fpgaLibrary = std::make_unique<FpgaLibrary>(*this);
    network->powerOn();
    fpga->powerOn();
}

Machine::~Machine() = default;

void Machine::violation(const std::string& source, const std::string& text) {
    if (dead()) return;
    violations.push_back(source + ": " + text);
    trace.add(EventKind::kViolation, source, text);
}

void Machine::losePower() {
    Guard guard(boardLock());
    if (dead_.exchange(true)) return;
    mcuChip->powerLost();
    mcuUart->powerLost();
    scheduler.powerLost();
}

// Board time goes on only while all threads wait: behind so many failures without a pause, each one
// takes a millisecond.
void Machine::readFailed() {
    constexpr int kAtOnceMost = 4096;
    constexpr Nanos kStep = std::chrono::milliseconds(1);
    const int error = errno;
    const Nanos now = scheduler.now();
    failedReadsAtOnce_ = now == lastFailedRead_ ? failedReadsAtOnce_ + 1 : 0;
    lastFailedRead_ = failedReadsAtOnce_ < kAtOnceMost ? now : now + kStep;
    scheduler.sleepUntil(lastFailedRead_, "its next read");
    errno = error;
}

std::optional<std::filesystem::path> Machine::onHost(const char* path) const {
    if (path == nullptr) return std::nullopt;
    const std::string_view text(path);
    for (const std::string_view prefix : kBoardPaths) {
        if (text.substr(0, prefix.size()) == prefix) return hostPath(text);
    }
    return std::nullopt;
}

std::filesystem::path Machine::hostPath(std::string_view boardPath) const {
    while (!boardPath.empty() && boardPath.front() == '/') boardPath.remove_prefix(1);
    return directory / "rootfs" / boardPath;
}

Uart* Machine::uartAt(std::string_view path) {
    return mcuUart && mcuUart->path() == path ? mcuUart.get() : nullptr;
}

OpenFile* Machine::openFile(int fd) {
    const auto found = files.find(fd);
    return found == files.end() ? nullptr : &found->second;
}

}  // namespace quil::board
