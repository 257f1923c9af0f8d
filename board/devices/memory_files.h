// The board's file system when the board is kept in memory, as the C library's calls see it.
#pragma once

#include <memory>
#include <string>

#include "board/core/store.h"
#include "board/devices/file_handle.h"

namespace quil::board {

class MemoryFiles {
  public:
    explicit MemoryFiles(std::shared_ptr<OverlayStore> store) : mStore(std::move(store)) {}

    // As open(2) and remove(3): an errno, or 0. Names are the store's; one with a slash at its end
    // is a folder's. A file that is removed while it is open has no content any more.
    int open(std::string name, int flags, std::shared_ptr<FileHandle>* opened);
    int remove(const std::string& name);
    struct Status {
        bool isFolder;
        size_t size;
    };
    int status(std::string name, Status* status) const;

  private:
    const std::shared_ptr<OverlayStore> mStore;
};

// The flags of open(2) for a mode of fopen(3).
int flagsOf(const char* mode);

}  // namespace quil::board
