#include "isp/firmware_file.h"

#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/log.h"

using quil::common::kFirmwareUpdateTag;

namespace {

constexpr int kFailed = 15;

bool exists(const char* path) { return path != nullptr && access(path, F_OK) == 0; }

const char* shown(const char* path) { return path != nullptr ? path : "(null)"; }

// Every fread starts at `buf` again: harmless, since the first one takes the whole file.
bool fill(void* buf, size_t n, FILE* file) {
    for (size_t total = 0; total < n;) {
        const size_t count = fread(buf, 1, n, file);
        if (count == 0) return false;
        total += count;
    }
    return true;
}

}  // namespace

int file_size(const char* path) {
    if (!exists(path)) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, " file not exist, filename %s \n", shown(path));
        return 0;
    }
    struct stat info = {};
    if (stat(path, &info) != 0) info.st_size = 0;
    const auto size = static_cast<int>(info.st_size);
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "get binfile size: %d\n", size);
    return size;
}

int file_read(const char* path, void* buf, int n) {
    if (!exists(path)) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, " file not exist, binfile %s \n", shown(path));
        return kFailed;
    }
    FILE* file = fopen(path, "rb");
    if (file == nullptr) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "file open error:%s. \n", path);
        return kFailed;
    }
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "fread binfile to binbuff . \n");
    const bool filled = n < 1 || fill(buf, static_cast<size_t>(n), file);
    fclose(file);
    if (filled) return 0;
    QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: %s is shorter than %d bytes\n", __func__, path, n);
    return kFailed;
}

int file_write(const char* path, const void* buf, unsigned n) {
    FILE* file = path != nullptr ? fopen(path, "wb") : nullptr;
    if (file == nullptr) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "file open error:%s. \n", shown(path));
        return kFailed;
    }
    fwrite(buf, 1, n, file);
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "fwrite binbuff to binfile(%s).\n", path);
    fclose(file);
    return 0;
}
