#include "board/core/services.h"

#include <errno.h>

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

BoardServices::BoardServices(Scheduler& time, std::shared_ptr<Store> memories,
                             std::filesystem::path root, std::shared_ptr<Store> files)
    : scheduler(time),
      store(std::move(memories)),
      trace(time, power),
      faults(trace),
      mFiles(std::move(files)),
      mRoot(std::move(root)) {}

BoardServices::~BoardServices() = default;

void BoardServices::powerOn(int speed, const Schedule& schedule, Standstill standstill) {
    scheduler.powerOn(speed, trace, schedule, std::move(standstill));
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

bool BoardServices::isBoards(const char* path) {
    if (path == nullptr) return false;
    const std::string_view text(path);
    return std::any_of(kBoardPaths.begin(), kBoardPaths.end(), [text](std::string_view prefix) {
        return text.substr(0, prefix.size()) == prefix;
    });
}

std::optional<std::filesystem::path> BoardServices::onHost(const char* path) const {
    return isBoards(path) ? std::optional(hostPath(path)) : std::nullopt;
}

std::string BoardServices::belowRoot(std::string_view boardPath) {
    std::string normal;
    const auto has = [&](std::string_view part) { return boardPath.find(part) != boardPath.npos; };
    if (has("..") || has("//") || has("/.")) {
        normal = ("/" / std::filesystem::path(boardPath)).lexically_normal().string();
        boardPath = normal;
    }
    while (!boardPath.empty() && boardPath.front() == '/') boardPath.remove_prefix(1);
    return std::string(boardPath);
}

std::filesystem::path BoardServices::hostPath(std::string_view boardPath) const {
    return mRoot / belowRoot(boardPath);
}

int BoardServices::readFile(const std::string& boardPath, std::string* content) const {
    const std::string name = belowRoot(boardPath);
    const auto found = mFiles->read(name);
    if (found) content->append(*found);
    if (found) return 0;
    const int error = mFiles->obstacle(name);
    return error != 0 ? error : ENOENT;
}

bool BoardServices::isFile(const std::string& boardPath) const {
    return mFiles->read(belowRoot(boardPath)).has_value();
}

int BoardServices::replaceFile(const std::string& boardPath, std::string_view content) {
    const std::string name = belowRoot(boardPath);
    const int error = mFiles->obstacle(name);
    if (error == 0) mFiles->replace(name, content);
    return error;
}

}  // namespace quil::board
