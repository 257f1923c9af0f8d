#include "board/core/services.h"

#include <algorithm>
#include <array>

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

BoardServices::BoardServices(Scheduler& time, std::shared_ptr<Store> files,
                             std::filesystem::path root)
    : scheduler(time),
      store(std::move(files)),
      trace(time, power),
      faults(trace),
      mRoot(std::move(root)) {}

BoardServices::~BoardServices() = default;

void BoardServices::powerOn(bool realtime, const Schedule& schedule, Standstill standstill) {
    scheduler.powerOn(realtime, trace, schedule, std::move(standstill));
    power.turnOn();
}

void BoardServices::powerOff() {
    power.turnOff();
    scheduler.powerOff();
}

void BoardServices::violation(const std::string& source, const std::string& text) {
    if (!power.isOn()) return;
    if (!violations.add(scheduler.now(), source + ": " + text)) return;
    trace.add(EventKind::kViolation, source, text);
}

void BoardServices::spendDeviceTime(Nanos duration, const char* what) {
    deviceTime += duration;
    scheduler.sleepFor(duration, what);
}

std::optional<std::filesystem::path> BoardServices::onHost(const char* path) const {
    if (path == nullptr) return std::nullopt;
    const std::string_view text(path);
    const bool isBoards = std::any_of(
        kBoardPaths.begin(), kBoardPaths.end(),
        [text](std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; });
    return isBoards ? std::optional(hostPath(path)) : std::nullopt;
}

std::filesystem::path BoardServices::hostPath(std::string_view boardPath) const {
    while (!boardPath.empty() && boardPath.front() == '/') boardPath.remove_prefix(1);
    return mRoot / boardPath;
}

}  // namespace quil::board
