#include "board/core/faults.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <array>

#include "board/interpose/malloc_hook.h"
#include "board/machine.h"

namespace quil::board {
namespace {

constexpr std::array<const char*, 22> kCallNames = {
    "open",     "read",        "write",         "close",   "select", "poll",
    "fcntl",    "tcgetattr",   "tcsetattr",     "tcflush", "access", "stat",
    "fopen",    "remove",      "system",        "malloc",  "probe",  "gpio set",
    "gpio get", "flash erase", "flash program", "vendor"};

std::string describe(const Fault& fault) {
    std::string text = nameOf(fault.call);
    if (fault.error != 0) text += " fails with " + std::string(strerrorname_np(fault.error));
    if (fault.shortTo) text += " stops at " + std::to_string(*fault.shortTo) + " bytes";
    if (fault.lostSilently) text += " does nothing";
    if (fault.exitCode) text += " exits with " + std::to_string(*fault.exitCode);
    if (fault.signal) text += " dies of signal " + std::to_string(*fault.signal);
    return text;
}

}  // namespace

const char* nameOf(Call call) { return kCallNames.at(static_cast<size_t>(call)); }

Faults::Faults() = default;
Faults::~Faults() { clear(); }

void Faults::add(Fault fault) {
    Guard guard(boardLock());
    if (fault.call == Call::kMalloc) hookAllocations();
    faults_.push_back(std::move(fault));
}

void Faults::clear() {
    Guard guard(boardLock());
    faults_.clear();
    unhookAllocations();
}

std::optional<Fault> Faults::take(Call call, std::string_view path) {
    Guard guard(boardLock());
    for (Fault& fault : faults_) {
        if (fault.call != call || fault.times == 0) continue;
        if (!fault.path.empty() && fault.path != path) continue;
        if (fault.after > 0) {
            --fault.after;
            continue;
        }
        if (fault.times > 0) --fault.times;
        if (Machine* machine = poweredMachine()) {
            machine->trace.add(EventKind::kFault, std::string(path), describe(fault));
        }
        return fault;
    }
    return std::nullopt;
}

}  // namespace quil::board
