#include "board/machine.h"

#include <array>

namespace quil::board {
namespace {

constexpr std::array<std::string_view, 8> kBoardPaths = {"/vendor/",
                                                         "/dev/ttyS",
                                                         "/dev/fpga_spi",
                                                         "/dev/block/by-name/",
                                                         "/dev/mtd",
                                                         "/sys/class/quilgpios/",
                                                         "/sys/class/ethernet/",
                                                         "/sdcard/"};

struct Wiring {
    std::string uart = "/dev/ttyS3";
    int baud = 115200;
    int codecs = 0;
};

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
    probes = std::make_unique<Probes>(directory / "parts", wiring.codecs);
}

Machine::~Machine() = default;

void Machine::violation(const std::string& source, const std::string& text) {
    violations.push_back(source + ": " + text);
    trace.add(EventKind::kViolation, source, text);
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
