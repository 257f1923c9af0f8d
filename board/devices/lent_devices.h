// Devices of the workstation that are lent to the board: the board's programs reach the real
// device, and the trace records what they transfer. For boards in real time.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "board/core/services.h"

namespace quil::board {

class LentDevices {
  public:
    explicit LentDevices(BoardServices& board) : board_(board) {}

    void lend(std::string path) { paths_.insert(std::move(path)); }
    bool has(std::string_view path) const { return paths_.find(path) != paths_.end(); }

    // For the C library calls.
    void opened(int fd, std::string path) { files_[fd] = std::move(path); }
    void closed(int fd) { files_.erase(fd); }
    bool isOpen(int fd) const { return files_.count(fd) != 0; }
    void transferred(int fd, EventKind, const void* data, ssize_t count) const;

  private:
    BoardServices& board_;
    std::set<std::string, std::less<>> paths_;
    std::map<int, std::string> files_;
};

}  // namespace quil::board
