// Attribute files of the board's drivers: a read returns a text, a write passes one to the driver.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "board/devices/file_handle.h"

namespace quil::board {

// One attribute. Both functions are called with the board's lock held.
struct SysfsFile {
    std::function<std::string()> show = nullptr;                // null: EACCES to a reader
    std::function<int(std::string_view text)> store = nullptr;  // 0 or an errno; null: EACCES
};

// An open attribute. A read behind the end of the text returns 0; each write is stored at once.
class SysfsHandle : public FileHandle {
  public:
    explicit SysfsHandle(const SysfsFile& file) : mFile(file) {}
    ssize_t read(char* data, size_t count) override;
    ssize_t write(const char* data, size_t count) override;
    off_t seek(off_t to, int whence) override;  // only from the start

  private:
    const SysfsFile mFile;
    std::string mShown;
    size_t mOffset = 0;
};

class Sysfs {
  public:
    Sysfs();
    ~Sysfs();
    Sysfs(const Sysfs&) = delete;
    Sysfs& operator=(const Sysfs&) = delete;

    // `path` is the board's, "/sys/class/...". An older attribute of that path is replaced.
    void add(const std::string& path, SysfsFile);
    void remove(const std::string& path);
    bool exists(std::string_view path) const;

    // For the board's other parts. refusal: the errno of such an open(), or 0.
    int refusal(std::string_view path, bool toRead, bool toWrite) const;
    std::shared_ptr<SysfsHandle> open(std::string_view path) const;

  private:
    std::map<std::string, SysfsFile, std::less<>> mFiles;
};

}  // namespace quil::board
