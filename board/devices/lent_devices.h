// Devices of the workstation that are lent to the board: the board's programs reach the real
// device, and the trace records what they transfer. For boards in real time.
#pragma once

#include <stdint.h>

#include <map>
#include <set>
#include <string>
#include <string_view>

#include "board/core/services.h"

namespace quil::board {

class LentDevices {
  public:
    explicit LentDevices(BoardServices& board) : mBoard(board) {}

    void lend(std::string path) { mPaths.insert(std::move(path)); }
    bool has(std::string_view path) const { return mPaths.find(path) != mPaths.end(); }

    // For the C library calls.
    void opened(int fd, std::string path) { mFiles[fd] = std::move(path); }
    void closed(int fd) { mFiles.erase(fd); }
    bool isOpen(int fd) const { return mFiles.count(fd) != 0; }
    void transferred(int fd, EventKind, const void* data, ssize_t count) const;

  private:
    BoardServices& mBoard;
    std::set<std::string, std::less<>> mPaths;
    std::map<int, std::string> mFiles;
};

}  // namespace quil::board
