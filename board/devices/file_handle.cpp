#include "board/devices/file_handle.h"

#include <errno.h>

#include "board/core/lock.h"

namespace quil::board {
namespace {

using Cookie = std::shared_ptr<FileHandle>;

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
    Guard guard(boardLock());
    const off_t at = (*static_cast<Cookie*>(cookie))->seek(static_cast<off_t>(*offset), whence);
    *offset = at;
    return static_cast<int>(streamResult(at < 0 ? at : 0, -1));
}

int streamClose(void* cookie) {
    delete static_cast<Cookie*>(cookie);
    return 0;
}

}  // namespace

FILE* openStream(const std::shared_ptr<FileHandle>& handle, const char* mode) {
    const cookie_io_functions_t calls = {streamRead, streamWrite, streamSeek, streamClose};
    auto* cookie = new Cookie(handle);
    FILE* stream = fopencookie(cookie, mode, calls);
    if (stream == nullptr) delete cookie;
    return stream;
}

}  // namespace quil::board
