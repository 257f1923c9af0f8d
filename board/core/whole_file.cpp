#include "board/core/whole_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "board/core/real_calls.h"

namespace quil::board {
namespace {

// The following return 0 or an errno.

int writeAll(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t done = real().write(fd, content.data(), content.size());
        if (done < 0 && errno != EINTR) return errno;
        if (done == 0) return EIO;
        if (done > 0) content.remove_prefix(static_cast<size_t>(done));
    }
    return 0;
}

// A file system that cannot synchronise is not asked to.
int synchronise(int fd) { return fsync(fd) == 0 || errno == EINVAL ? 0 : errno; }

int writeFresh(const char* file, std::string_view content, bool durable) {
    unlink(file);  // left by a program that was killed
    const int fd = real().open(file, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) return errno;
    int error = writeAll(fd, content);
    if (error == 0 && durable) error = synchronise(fd);
    if (real().close(fd) != 0 && error == 0) error = errno;
    return error;
}

int synchroniseFolder(const std::filesystem::path& folder) {
    const int fd = real().open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    const int error = synchronise(fd);
    real().close(fd);
    return error;
}

}  // namespace

std::optional<std::string> readWholeFile(const std::filesystem::path& path, uint64_t most) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) return std::nullopt;
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) return std::nullopt;
    const auto size = std::min<uint64_t>(static_cast<uint64_t>(std::streamoff{file.tellg()}), most);
    std::string content(static_cast<size_t>(size), '\0');
    file.seekg(0);
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<size_t>(file.gcount()));
    return content;
}

void writeWholeFile(const std::filesystem::path& path, std::string_view content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.flush();
    if (file) return;
    throw std::runtime_error(path.string() + ": cannot be written: " + strerror(errno));
}

void replaceWholeFile(const std::filesystem::path& path, std::string_view content, bool durable) {
    const std::string fresh = path.string() + kFreshSuffix;
    int error = writeFresh(fresh.c_str(), content, durable);
    if (error == 0 && rename(fresh.c_str(), path.c_str()) != 0) error = errno;
    if (error != 0) {
        unlink(fresh.c_str());
    } else if (durable) {
        error = synchroniseFolder(path.parent_path());
    }
    if (error == 0) return;
    throw std::system_error(error, std::generic_category(), path.string() + ": cannot be written");
}

}  // namespace quil::board
