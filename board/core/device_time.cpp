#include "board/core/device_time.h"

#include "board/machine.h"

namespace quil::board {

void spendDeviceTime(Nanos duration, const char* what) {
    Machine* machine = poweredMachine();
    if (machine == nullptr) return;
    machine->deviceTime += duration;
    machine->scheduler.sleepUntil(machine->scheduler.now() + duration, what);
}

}  // namespace quil::board
