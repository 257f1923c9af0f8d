#include "board/core/directory_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "board/core/real_calls.h"

namespace quil::board {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kBetweenTries{20};
constexpr size_t kLongestLine = 300;

milliseconds steadyNow() {
    timespec time{};
    real().clock_gettime(CLOCK_MONOTONIC, &time);
    return milliseconds(time.tv_sec * 1000LL + time.tv_nsec / 1000000);
}

void pauseFor(milliseconds duration) {
    const timespec time{0, static_cast<long>(duration.count()) * 1000000};
    real().nanosleep(&time, nullptr);  // a signal ends it early
}

std::string wallClock() {
    timespec time{};
    real().clock_gettime(CLOCK_REALTIME, &time);
    tm local{};
    std::array<char, 32> text{};
    localtime_r(&time.tv_sec, &local);
    return {text.data(), strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local)};
}

// Of a process, by its number or as "self".
std::string commandLine(const std::string& process) {
    std::array<char, kLongestLine> words{};
    const int fd = real().open(("/proc/" + process + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t size = fd < 0 ? 0 : real().read(fd, words.data(), words.size());
    if (fd >= 0) real().close(fd);
    std::string text(words.data(), size > 0 ? static_cast<size_t>(size) : 0);
    while (!text.empty() && text.back() == '\0') text.pop_back();
    std::replace(text.begin(), text.end(), '\0', ' ');
    return text;
}

[[noreturn]] void refuse(const std::filesystem::path& file, int error) {
    throw std::system_error(error, std::generic_category(), file.string() + ": cannot be locked");
}

// -1 for a reader of a directory that nobody may write.
int openLockFile(const std::filesystem::path& file, DirectoryLock::Use use) {
    const bool reads = use == DirectoryLock::Use::kReader;
    // A FIFO in its place does not block.
    const int flags = (reads ? O_RDONLY : O_RDWR) | O_CLOEXEC | O_NONBLOCK;
    int fd = real().open(file.c_str(), flags);
    if (fd < 0 && errno == ENOENT) {
        fd = real().open(file.c_str(), flags | O_CREAT, 0666);
        if (fd < 0 && reads && (errno == EROFS || errno == EACCES)) return -1;
    }
    if (fd < 0) refuse(file, errno);
    struct stat info {};
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) return fd;
    real().close(fd);
    throw std::runtime_error(file.string() + ": cannot be locked: it is no file " +
                             "(quilctl board repair mends it)");
}

std::string lineIn(int fd) {
    std::array<char, 2 * kLongestLine> text{};
    const ssize_t size = pread(fd, text.data(), text.size(), 0);
    std::string line(text.data(), size > 0 ? static_cast<size_t>(size) : 0);
    line.resize(std::min(line.find('\n'), line.size()));
    std::replace_if(
        line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; }, '?');
    return line;
}

std::string holderOf(int fd) {
    const std::string line = lineIn(fd);
    return line.empty() ? "another program" : line;
}

bool onlyReadersHold(int fd) {
    if (flock(fd, LOCK_SH | LOCK_NB) != 0) return false;
    flock(fd, LOCK_UN);
    return true;
}

// Readers write nothing: the kernel's list of locks says who they are.
std::string readersOf(int fd) {
    struct stat info {};
    fstat(fd, &info);
    const std::string inode = ":" + std::to_string(info.st_ino);
    std::ifstream locks("/proc/locks");
    std::string readers;
    for (std::string line; std::getline(locks, line);) {
        std::istringstream words(line);
        std::string number, kind, advisory, access, pid, file;
        words >> number >> kind >> advisory >> access >> pid >> file;
        if (kind != "FLOCK" || access != "READ" || file.size() < inode.size()) continue;
        if (file.compare(file.size() - inode.size(), inode.size(), inode) != 0) continue;
        readers += (readers.empty() ? "pid " : ", pid ") + pid + ": " + commandLine(pid);
    }
    return readers.empty() ? "other programs" : readers;
}

}  // namespace

DirectoryLock::DirectoryLock(const std::filesystem::path& directory, Use use,
                             const Patience& patience)
    : mUse(use), mFd(openLockFile(directory / kLockFile, use)) {
    if (mFd < 0) return;
    try {
        wait(directory, patience);
        if (mUse == Use::kOwner) signIn(directory);
    } catch (...) {
        real().close(mFd);
        throw;
    }
}

DirectoryLock::~DirectoryLock() {
    if (mFd < 0) return;
    if (mUse == Use::kOwner && ftruncate(mFd, 0) != 0) errno = 0;  // only a stale name stays
    real().close(mFd);
}

void DirectoryLock::wait(const std::filesystem::path& directory, const Patience& patience) {
    const milliseconds deadline = steadyNow() + patience.most;
    while (flock(mFd, (mUse == Use::kOwner ? LOCK_EX : LOCK_SH) | LOCK_NB) != 0) {
        if (errno == EINTR) continue;
        if (errno != EWOULDBLOCK) refuse(directory / kLockFile, errno);
        const milliseconds left = deadline - steadyNow();
        const std::string holder = holderOf(mFd);
        if (left > milliseconds(0) && (!patience.goOn || patience.goOn(holder))) {
            pauseFor(std::min(left, kBetweenTries));
            continue;
        }
        const auto waited = (patience.most - std::max(left, milliseconds(0))).count() / 1000;
        const bool isRead = onlyReadersHold(mFd);
        throw std::runtime_error(
            directory.string() +
            (isRead ? " is being read by " + readersOf(mFd) : " is in use by " + holder) +
            "; waited " + std::to_string(waited) + " s");
    }
}

void DirectoryLock::signIn(const std::filesystem::path& directory) const {
    const std::string line = "pid " + std::to_string(getpid()) + " since " + wallClock() + ": " +
                             commandLine("self") + "\n";
    if (ftruncate(mFd, 0) == 0 && pwrite(mFd, line.data(), line.size(), 0) > 0) return;
    throw std::system_error(errno, std::generic_category(),
                            (directory / kLockFile).string() + ": cannot be written");
}

}  // namespace quil::board
