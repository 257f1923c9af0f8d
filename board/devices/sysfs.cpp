#include "board/devices/sysfs.h"

#include <errno.h>

#include <algorithm>

#include "board/core/lock.h"

namespace quil::board {
namespace {

using Cookie = std::shared_ptr<SysfsHandle>;

ssize_t streamResult(ssize_t result, ssize_t failure) {
    if (result >= 0) return result;
    errno = static_cast<int>(-result);
    return failure;
}

ssize_t streamRead(void* cookie, char* data, size_t count) {
    Guard guard(boardLock());
    return streamResult((*static_cast<Cookie*>(cookie))->read(data, count), -1);
}

ssize_t streamWrite(void* cookie, const char* data, size_t count) {
    Guard guard(boardLock());
    return streamResult((*static_cast<Cookie*>(cookie))->write(data, count), 0);
}

int streamSeek(void* cookie, off64_t* offset, int whence) {
    if (whence != SEEK_SET) return -1;
    Guard guard(boardLock());
    return (*static_cast<Cookie*>(cookie))->seek(static_cast<off_t>(*offset)) < 0 ? -1 : 0;
}

int streamClose(void* cookie) {
    delete static_cast<Cookie*>(cookie);
    return 0;
}

}  // namespace

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

ssize_t SysfsHandle::seek(off_t to) {
    if (to < 0) return -EINVAL;
    mOffset = static_cast<size_t>(to);
    return static_cast<ssize_t>(to);
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

FILE* Sysfs::openStream(const std::shared_ptr<SysfsHandle>& handle, const char* mode) {
    const cookie_io_functions_t calls = {streamRead, streamWrite, streamSeek, streamClose};
    auto* cookie = new Cookie(handle);
    FILE* stream = fopencookie(cookie, mode, calls);
    if (stream == nullptr) delete cookie;
    return stream;
}

}  // namespace quil::board
