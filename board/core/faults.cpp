#include "board/core/faults.h"

#include <errno.h>
#include <string.h>

#include "board/core/lock.h"

namespace quil::board {
namespace {

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

const char* nameOf(Call call) {
    switch (call) {
        case Call::kOpen:
            return "open";
        case Call::kRead:
            return "read";
        case Call::kWrite:
            return "write";
        case Call::kClose:
            return "close";
        case Call::kSelect:
            return "select";
        case Call::kPoll:
            return "poll";
        case Call::kFcntl:
            return "fcntl";
        case Call::kTcgetattr:
            return "tcgetattr";
        case Call::kTcsetattr:
            return "tcsetattr";
        case Call::kTcflush:
            return "tcflush";
        case Call::kAccess:
            return "access";
        case Call::kStat:
            return "stat";
        case Call::kFopen:
            return "fopen";
        case Call::kRemove:
            return "remove";
        case Call::kSystem:
            return "system";
        case Call::kMalloc:
            return "malloc";
        case Call::kProbe:
            return "probe";
        case Call::kGpioSet:
            return "gpio set";
        case Call::kGpioGet:
            return "gpio get";
        case Call::kFlashErase:
            return "flash erase";
        case Call::kFlashProgram:
            return "flash program";
        case Call::kVendor:
            return "vendor";
        case Call::kPropertySet:
            return "property set";
        case Call::kSleep:
            return "sleep";
        case Call::kWait:
            return "wait";
    }
    return "";
}

Faults::Faults(Trace& trace) : mTrace(trace) {}
Faults::~Faults() { clear(); }

void Faults::add(Fault fault) {
    Guard guard(boardLock());
    if (fault.call == Call::kMalloc && mAllocationsMayFail) mAllocationsMayFail(true);
    mFaults.push_back(std::move(fault));
}

void Faults::remove(const std::function<bool(const Fault&)>& isMeant) {
    Guard guard(boardLock());
    std::erase_if(mFaults, isMeant);
}

void Faults::clear() {
    Guard guard(boardLock());
    mFaults.clear();
    if (mAllocationsMayFail) mAllocationsMayFail(false);
}

void Faults::onCall(std::function<void(Call, std::string_view path)> told) {
    Guard guard(boardLock());
    mTold = std::move(told);
    if (mTold && mAllocationsMayFail) mAllocationsMayFail(true);
}

std::optional<Fault> Faults::take(Call call, std::string_view path) {
    Guard guard(boardLock());
    if (mTold) mTold(call, path);
    for (Fault& fault : mFaults) {
        if (fault.call != call || fault.times == 0) continue;
        if (!fault.path.empty() && fault.path != path) continue;
        if (fault.after > 0) {
            --fault.after;
            continue;
        }
        if (fault.times > 0) --fault.times;
        mTrace.add(EventKind::kFault, std::string(path), describe(fault));
        return fault;
    }
    return std::nullopt;
}

}  // namespace quil::board
