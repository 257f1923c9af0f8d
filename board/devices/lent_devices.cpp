#include "board/devices/lent_devices.h"

namespace quil::board {

bool LentDevices::mayWrite(int fd, const void* data, size_t count) const {
    const auto file = mFiles.find(fd);
    if (file == mFiles.end()) return true;
    const auto gate = mGates.find(file->second);
    if (gate == mGates.end() || !gate->second) return true;
    return gate->second({static_cast<const uint8_t*>(data), count});
}

void LentDevices::transferred(int fd, EventKind kind, const void* data, ssize_t count) const {
    const auto file = mFiles.find(fd);
    if (file == mFiles.end() || count <= 0) return;
    const auto* bytes = static_cast<const uint8_t*>(data);
    mBoard.trace.add(kind, file->second, std::to_string(count) + " bytes", {bytes, bytes + count});
}

}  // namespace quil::board
