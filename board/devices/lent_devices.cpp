#include "board/devices/lent_devices.h"

#include "board/machine.h"

namespace quil::board {

void LentDevices::transferred(int fd, EventKind kind, const void* data, ssize_t count) const {
    const auto file = files_.find(fd);
    Machine* machine = poweredMachine();
    if (file == files_.end() || machine == nullptr || count <= 0) return;
    const auto* bytes = static_cast<const uint8_t*>(data);
    machine->trace.add(kind, file->second, std::to_string(count) + " bytes",
                       {bytes, bytes + count});
}

}  // namespace quil::board
