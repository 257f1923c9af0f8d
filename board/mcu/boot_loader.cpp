#include "board/mcu/boot_loader.h"

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
