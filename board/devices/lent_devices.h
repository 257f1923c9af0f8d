// Devices of the workstation that are lent to the board: the board's programs reach the real
// device, and the trace records what they transfer. For boards in real time.
#pragma once

#include <stdint.h>

#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "board/core/services.h"

namespace quil::board {

class LentDevices {
  public:
    explicit LentDevices(BoardServices& board) : mBoard(board) {}

    // Asked before each write to the device; false: the write fails with EIO.
    using Gate = std::function<bool(std::span<const uint8_t>)>;

    void lend(std::string path, Gate gate) { mGates[std::move(path)] = std::move(gate); }
    bool has(std::string_view path) const { return mGates.find(path) != mGates.end(); }

    // For the C library calls.
    void opened(int fd, std::string path) { mFiles[fd] = std::move(path); }
    void closed(int fd) { mFiles.erase(fd); }
    bool isOpen(int fd) const { return mFiles.count(fd) != 0; }
    bool mayWrite(int fd, const void* data, size_t count) const;
    void transferred(int fd, EventKind, const void* data, ssize_t count) const;

  private:
    BoardServices& mBoard;
    std::map<std::string, Gate, std::less<>> mGates;
    std::map<int, std::string> mFiles;
};

}  // namespace quil::board
