#include "board/devices/lent_devices.h"

namespace quil::board {

void LentDevices::transferred(int fd, EventKind kind, const void* data, ssize_t count) const {
    const auto file = mFiles.find(fd);
    if (file == mFiles.end() || count <= 0) return;
    const auto* bytes = static_cast<const uint8_t*>(data);
    mBoard.trace.add(kind, file->second, std::to_string(count) + " bytes", {bytes, bytes + count});
}

}  // namespace quil::board
