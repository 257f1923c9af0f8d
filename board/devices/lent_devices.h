// Devices of the workstation that are lent to the board: the board's programs reach the real thing,
// and what crosses it stands in the trace as if it were the board's own. Only sensible in real
// time.
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

    // For the C library calls. The others than these know nothing of the descriptor.
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
