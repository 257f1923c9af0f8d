// Attribute files of the board's drivers: a read shows a text, a write stores one.
#pragma once

#include <stdio.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace quil::board {

// One attribute. Both are called with the board's lock held.
struct SysfsFile {
    std::function<std::string()> show = nullptr;                // null: EACCES to a reader
    std::function<int(std::string_view text)> store = nullptr;  // 0 or an errno; null: EACCES
};

// One opening of an attribute. A read past the shown text ends; every write stores by itself.
class SysfsHandle {
  public:
    explicit SysfsHandle(const SysfsFile& file) : file_(file) {}
    ssize_t read(char* data,
                 size_t count);  // a negative result is the negated errno, here and below
    ssize_t write(const char* data, size_t count);
    ssize_t seek(off_t to);

  private:
    const SysfsFile file_;
    std::string shown_;
    size_t offset_ = 0;
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

    // The board's own use. The errno that forbids such an opening, 0 when none does.
    int refusal(std::string_view path, bool toRead, bool toWrite) const;
    std::shared_ptr<SysfsHandle> open(std::string_view path) const;
    // A C stream onto the attribute; `handle` takes part in the stream until it is closed.
    static FILE* openStream(const std::shared_ptr<SysfsHandle>& handle, const char* mode);

  private:
    std::map<std::string, SysfsFile, std::less<>> files_;
};

}  // namespace quil::board
