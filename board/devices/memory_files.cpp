#include "board/devices/memory_files.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include <algorithm>
#include <utility>

namespace quil::board {
namespace {

class MemoryFile : public FileHandle {
  public:
    MemoryFile(std::shared_ptr<OverlayStore> store, std::string name, int flags)
        : mStore(std::move(store)), mName(std::move(name)), mFlags(flags) {}

    ssize_t read(char* data, size_t count) override {
        if ((mFlags & O_ACCMODE) == O_WRONLY) return -EBADF;
        if (mStore->isFolder(mName)) return -EISDIR;
        const std::string* content = mStore->find(mName);
        if (content == nullptr || mOffset >= content->size()) return 0;
        const size_t got = content->copy(data, count, mOffset);
        mOffset += got;
        return static_cast<ssize_t>(got);
    }
    ssize_t write(const char* data, size_t count) override {
        if ((mFlags & O_ACCMODE) == O_RDONLY) return -EBADF;
        if (mStore->find(mName) == nullptr) return static_cast<ssize_t>(count);
        std::string& content = mStore->edit(mName);
        if ((mFlags & O_APPEND) != 0) mOffset = content.size();
        if (content.size() < mOffset + count) content.resize(mOffset + count);
        content.replace(mOffset, count, data, count);
        mOffset += count;
        return static_cast<ssize_t>(count);
    }
    off_t seek(off_t to, int whence) override {
        if (whence == SEEK_CUR) to += static_cast<off_t>(mOffset);
        if (whence == SEEK_END) to += size();
        if (to < 0) return -EINVAL;
        mOffset = static_cast<size_t>(to);
        return to;
    }

  private:
    off_t size() const {
        const std::string* content = mStore->find(mName);
        return content == nullptr ? 0 : static_cast<off_t>(content->size());
    }

    const std::shared_ptr<OverlayStore> mStore;
    const std::string mName;
    const int mFlags;
    size_t mOffset = 0;
};

bool takeSlash(std::string& name) {
    const bool had = !name.empty() && name.back() == '/';
    while (!name.empty() && name.back() == '/') name.pop_back();
    return had;
}

}  // namespace

int MemoryFiles::open(std::string name, int flags, std::shared_ptr<FileHandle>* opened) {
    const bool writes = (flags & O_ACCMODE) != O_RDONLY;
    const bool mustBeFolder = takeSlash(name) || (flags & O_DIRECTORY) != 0;
    const bool isFolder = mStore->isFolder(name);
    const bool exists = isFolder || mStore->find(name) != nullptr;
    if (exists && (flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) return EEXIST;
    if (isFolder && (writes || (flags & O_CREAT) != 0)) return EISDIR;
    if (exists && mustBeFolder && !isFolder) return ENOTDIR;
    if (!exists) {
        if ((flags & O_CREAT) == 0 || mustBeFolder) return ENOENT;
        if (const int error = mStore->obstacle(name)) return error;
    }
    if (!exists || (writes && (flags & O_TRUNC) != 0)) mStore->replace(name, "");
    *opened = std::make_shared<MemoryFile>(mStore, std::move(name), flags);
    return 0;
}

int MemoryFiles::status(std::string name, Status* status) const {
    const bool mustBeFolder = takeSlash(name);
    *status = {mStore->isFolder(name), 0};
    if (status->isFolder) return 0;
    const std::string* content = mStore->find(name);
    if (content == nullptr) return ENOENT;
    status->size = content->size();
    return mustBeFolder ? ENOTDIR : 0;
}

int MemoryFiles::remove(const std::string& name) {
    Status known{};
    if (const int error = status(name, &known)) return error;
    if (known.isFolder) return EBUSY;  // the board's folders stay
    mStore->remove(name);
    return 0;
}

int flagsOf(const char* mode) {
    const bool both = strchr(mode, '+') != nullptr;
    const int exclusive = strchr(mode, 'x') != nullptr ? O_EXCL : 0;
    if (mode[0] == 'r') return both ? O_RDWR : O_RDONLY;
    const int access = (both ? O_RDWR : O_WRONLY) | O_CREAT | exclusive;
    return access | (mode[0] == 'a' ? O_APPEND : O_TRUNC);
}

}  // namespace quil::board
