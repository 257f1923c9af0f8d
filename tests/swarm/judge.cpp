#include "tests/swarm/judge.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "board/core/bytes.h"
#include "tests/swarm/ground.h"
#include "tests/swarm/oracle/log_texts.h"
#include "tests/swarm/witness.h"

namespace quil::swarm {
namespace {

using board::McuChip;

constexpr char kUpdateProperty[] = "persist.quil.system.fpga.fw.update";
constexpr char kMcuProperty[] = "persist.quil.mcu_fw_version";

std::string unknownMessageOf(const std::vector<board::LogLine>& lines) {
    for (const board::LogLine& line : lines) {
        if (line.tag == "quil_service_host") continue;  // the host's own
        const bool isKnown = line.tag.rfind("quil_system_", 0) == 0 &&
                             (line.priority == 3 || line.priority == 4 || line.priority == 6) &&
                             mayBeLogged(line.text);
        if (!isKnown) return line.tag + ": " + line.text;
    }
    return "";
}

bool isKnownMcu(const std::string& version) {
    return version == kShippedMcu || version == kOlderMcu;
}

template <typename Cells>
bool beginsWith(const Cells& cells, const std::string& image) {
    const auto same = [](uint8_t cell, char byte) { return cell == static_cast<uint8_t>(byte); };
    return cells.size() >= image.size() &&
           std::equal(image.begin(), image.end(), cells.begin(),
                      [&](char byte, uint8_t cell) { return same(cell, byte); });
}

std::string problemOfMcu(const World& world, board::Board& board) {
    const std::string runs = board.mcuChip().version();
    if (runs != kShippedMcu) return "the MCU runs '" + runs + "'";
    if (!beginsWith(board.mcuChip().flash().cells(), Ground::mcuImageOf(world, kShippedMcu))) {
        return "the MCU's flash does not hold the shipped image";
    }
    const std::string kept = board.properties().get(kMcuProperty, kShippedMcu);
    return kept == kShippedMcu ? "" : "the MCU's version is kept as '" + kept + "'";
}

std::string problemOfFpga(const World& world, board::Board& board) {
    const bool isLoadedAfresh = world.product == board::Product::kKestrel;
    const char* inFlash = world.fpgaIsPending && !isLoadedAfresh ? kShippedFpga : kOlderFpga;
    const char* wanted = isLoadedAfresh ? kShippedFpga : inFlash;
    const std::string runs = board.fpga().version();
    if (runs != wanted) return "the FPGA runs '" + runs + "' and not " + wanted;
    const std::string image = Ground::fpgaImageOf(world, inFlash);
    if (!beginsWith(board.flash().read(0, image.size()), image)) {
        return std::string("the FPGA's flash does not hold ") + inFlash;
    }
    const std::string pending = board.properties().get(kUpdateProperty, "0");
    const char* expected = isLoadedAfresh && world.fpgaIsPending ? "1" : "0";
    return pending == expected ? "" : "the FPGA's update is pending: " + pending;
}

// What the entries of a folder of /proc are, or where they point.
std::multiset<std::string> entriesOf(const std::string& folder) {
    std::multiset<std::string> entries;
    DIR* directory = opendir(folder.c_str());
    if (directory == nullptr) return entries;
    while (const dirent* entry = readdir(directory)) {
        std::array<char, 256> target{};
        const std::string path = folder + entry->d_name;
        const ssize_t length = readlink(path.c_str(), target.data(), target.size());
        entries.insert(length > 0 ? std::string(target.data(), static_cast<size_t>(length))
                                  : entry->d_name);
    }
    closedir(directory);
    return entries;
}

// A thread that was joined may be on its way out for a while yet.
bool isLiving(const std::string& task) {
    if (task.front() == '.') return false;  // the folder and the one above it
    constexpr unsigned kExiting = 0x4;      // the kernel's PF_EXITING
    std::ifstream file("/proc/self/task/" + task + "/stat");
    std::string stat;
    unsigned flags = kExiting;
    std::getline(file, stat);
    const size_t name = stat.rfind(')');  // state, five numbers, the flags
    if (name == std::string::npos) return false;
    std::istringstream fields(stat.substr(name + 1));
    std::string skipped;
    for (int i = 0; i < 6; ++i) fields >> skipped;
    fields >> flags;
    return (flags & kExiting) == 0;
}

size_t threadsNow() {
    const auto tasks = entriesOf("/proc/self/task/");
    return static_cast<size_t>(std::count_if(tasks.begin(), tasks.end(), isLiving));
}

// Under emulation a thread may be joined before the kernel knows that it ends, and on a busy
// machine its last instructions wait for a processor.
template <typename Condition>
void waitUntil(const Condition& holds) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::seconds kEndMost(10);
    const auto deadline = Clock::now() + kEndMost;
    while (!holds() && Clock::now() < deadline) std::this_thread::yield();
}

// The thread sanitizer has one of its own, which comes with the program's first.
size_t threadsOfTheProgram() {
    std::string first;
    std::thread([&first] { first = std::to_string(gettid()); }).join();
    waitUntil([&first] { return !isLiving(first); });
    return threadsNow();
}

size_t livingThreads() {
    static size_t usual = threadsOfTheProgram();
    size_t living = 0;
    waitUntil([&living] { return (living = threadsNow()) <= usual; });
    usual = std::max(usual, living);  // those that stay are waited for once
    return living;
}

}  // namespace

bool isOfTheLink(const std::string& violation, board::Board& board) {
    const std::string_view source(violation.data(), violation.find(':'));
    return source == "mcu" || source == board.mcuUart().path() ||
           source == board.mcuChip().part().name;
}

std::string problemOfBoot(const Boot& boot, board::Board& board, bool isDescribed) {
    const bool linkIsClean = isDescribed && boot.linkIsClean();

    for (const std::string& violation : board.violations()) {
        if (!boot.faults.empty()) break;         // a step that fails leaves the next one its mess
        if (violation.front() == '#') continue;  // more of a kind
        if (linkIsClean || !isOfTheLink(violation, board)) return "violation: " + violation;
    }
    const std::string message = unknownMessageOf(board.logLines());
    if (!message.empty()) return "message: nobody knows: " + message;
    for (const McuChip::Start& start : board.mcuChip().starts()) {
        if (start.as == McuChip::State::kApplication && !isKnownMcu(start.version)) {
            return "image: the MCU started as '" + start.version + "'";
        }
    }
    return "";
}

std::string problemOfCleanBoot(const World& world, board::Board& board,
                               const host::HostingComponent& host) {
    if (std::string problem = problemOfMcu(world, board); !problem.empty()) return problem;
    if (std::string problem = problemOfFpga(world, board); !problem.empty()) return problem;
    if (host.reader()->linkLost()) return "the reader lost the link";
    return "";
}

Held Held::now() {
    return {entriesOf("/proc/self/fd/"), livingThreads(),
            static_cast<size_t>(NumberedCallback::alive)};
}

std::string Held::differenceTo(const Held& later) const {
    if (later.descriptors != descriptors) {
        std::string text = "descriptors:";
        for (const std::string& one : later.descriptors) {
            if (later.descriptors.count(one) > descriptors.count(one)) text += " " + one;
        }
        return text;
    }
    if (later.threads != threads) {
        return std::to_string(later.threads) + " threads instead of " + std::to_string(threads);
    }
    if (later.callbacks == callbacks) return "";
    return std::to_string(later.callbacks) + " callbacks instead of " + std::to_string(callbacks);
}

}  // namespace quil::swarm
