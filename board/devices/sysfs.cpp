#include "board/devices/sysfs.h"

#include <errno.h>

#include <algorithm>

#include "board/core/lock.h"

namespace quil::board {
ssize_t SysfsHandle::read(char* data, size_t count) {
    if (!mFile.show) return -EACCES;
    if (mOffset == 0) mShown = mFile.show();
    const size_t got = std::min(count, mShown.size() - std::min(mOffset, mShown.size()));
    if (got > 0) mShown.copy(data, got, mOffset);
    mOffset += got;
    return static_cast<ssize_t>(got);
}

ssize_t SysfsHandle::write(const char* data, size_t count) {
    if (!mFile.store) return -EACCES;
    const int error = mFile.store({data, count});
    return error != 0 ? -error : static_cast<ssize_t>(count);
}

off_t SysfsHandle::seek(off_t to, int whence) {
    if (whence != SEEK_SET || to < 0) return -EINVAL;
    mOffset = static_cast<size_t>(to);
    return to;
}

Sysfs::Sysfs() = default;
Sysfs::~Sysfs() = default;

void Sysfs::add(const std::string& path, SysfsFile file) {
    Guard guard(boardLock());
    mFiles[path] = std::move(file);
}

void Sysfs::remove(const std::string& path) {
    Guard guard(boardLock());
    mFiles.erase(path);
}

bool Sysfs::exists(std::string_view path) const {
    Guard guard(boardLock());
    return mFiles.find(path) != mFiles.end();
}

int Sysfs::refusal(std::string_view path, bool toRead, bool toWrite) const {
    const auto found = mFiles.find(path);
    if (found == mFiles.end()) return ENOENT;
    if (toRead && !found->second.show) return EACCES;
    return toWrite && !found->second.store ? EACCES : 0;
}

std::shared_ptr<SysfsHandle> Sysfs::open(std::string_view path) const {
    const auto found = mFiles.find(path);
    return found == mFiles.end() ? nullptr : std::make_shared<SysfsHandle>(found->second);
}

}  // namespace quil::board
