// An open file that is none of the workstation's: a driver's attribute, or a file that the board
// keeps in memory.
#pragma once

#include <stdio.h>
#include <sys/types.h>

#include <memory>

namespace quil::board {

// Each is called with the board's lock held. A negative result is the negated errno.
class FileHandle {
  public:
    FileHandle() = default;
    virtual ~FileHandle() = default;
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;

    virtual ssize_t read(char* data, size_t count) = 0;
    virtual ssize_t write(const char* data, size_t count) = 0;
    // Returns the new place in the file.
    virtual off_t seek(off_t to, int whence) = 0;
};

// A C stream onto it, which keeps it until it is closed. Null, and errno, without memory.
FILE* openStream(const std::shared_ptr<FileHandle>&, const char* mode);

}  // namespace quil::board
