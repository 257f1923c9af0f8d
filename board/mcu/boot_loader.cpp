#include "board/mcu/boot_loader.h"

#include <algorithm>
#include <utility>

#include "board/core/lock.h"
#include "board/mcu/n32_boot_loader.h"
#include "board/mcu/stm32_boot_loader.h"

namespace quil::board {

void LoaderFaults::add(const LoaderFault& fault) {
    Guard guard(boardLock());
    mFaults.push_back(fault);
}

void LoaderFaults::clear() {
    Guard guard(boardLock());
    mFaults.clear();
}

std::optional<LoaderFault> LoaderFaults::take(uint8_t command, LoaderStep step) {
    for (LoaderFault& fault : mFaults) {
        if (fault.times == 0 || (fault.step && *fault.step != step)) continue;
        if (fault.command && (step == LoaderStep::kSync || *fault.command != command)) continue;
        if (fault.after > 0) {
            --fault.after;
            continue;
        }
        if (fault.times > 0) --fault.times;
        return fault;
    }
    return std::nullopt;
}

PendingFault::Lateness PendingFault::apply(std::vector<uint8_t>& answer, size_t ackAt,
                                           size_t dataAt) {
    using Kind = LoaderFault::Kind;
    if (!mFault || answer.empty() || is(Kind::kWrongCell) || is(Kind::kReset)) return {};
    const LoaderFault fault = *std::exchange(mFault, std::nullopt);
    switch (fault.kind) {
        case Kind::kAckLost:
            answer.erase(answer.begin());
            break;
        case Kind::kJunk:
            answer.insert(answer.begin(), fault.value.value_or(0x00));
            break;
        case Kind::kDamagedAck:
            answer[std::min(ackAt, answer.size() - 1)] = fault.value.value_or(0xBC);
            break;
        case Kind::kFlippedBit:
            answer[std::min(dataAt + fault.at, answer.size() - 1)] ^= fault.value.value_or(0x01);
            break;
        case Kind::kShortReply:
            answer.pop_back();
            break;
        case Kind::kLate:
        case Kind::kBusy:
            return {fault.delay, fault.kind == Kind::kBusy};
        case Kind::kSilent:
        case Kind::kNack:
        case Kind::kHangs:
        case Kind::kWrongCell:
        case Kind::kReset:
            break;
    }
    return {};
}

void PendingFault::spoil(std::vector<uint8_t>& programmed) {
    if (!is(LoaderFault::Kind::kWrongCell)) return;
    const LoaderFault fault = *std::exchange(mFault, std::nullopt);
    const uint8_t bits = fault.value.value_or(0x01);
    for (size_t at = fault.at; at < programmed.size(); ++at) {
        if ((programmed[at] & bits) == 0) continue;
        programmed[at] &= static_cast<uint8_t>(~bits);
        return;
    }
}

bool PendingFault::takeReset() {
    if (!is(LoaderFault::Kind::kReset)) return false;
    forget();
    return true;
}

const char* nameOf(LoaderStep step) {
    switch (step) {
        case LoaderStep::kSync:
            return "sync";
        case LoaderStep::kCommand:
            return "command";
        case LoaderStep::kAddress:
            return "address";
        case LoaderStep::kCount:
            return "count";
        case LoaderStep::kData:
            return "data";
        case LoaderStep::kFinished:
            return "finished";
    }
    return "";
}

std::unique_ptr<BootLoader> makeBootLoader(McuFlash& flash, McuSurroundings& around,
                                           LoaderFaults& faults) {
    if (flash.part().commands.empty()) {
        return std::make_unique<N32BootLoader>(flash, around, faults);
    }
    return std::make_unique<Stm32BootLoader>(flash, around, faults);
}

}  // namespace quil::board
