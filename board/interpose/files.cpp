// The C library's file calls, by path and by descriptor.
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "board/core/real_calls.h"
#include "board/interpose/interpose.h"
#include "board/machine.h"

using namespace quil::board;

namespace {

// Answers access() and stat() of a device or attribute: only its existence matters.
constexpr char kSomeFile[] = "/dev/null";

using OpenCall = int (*)(const char*, int, ...);

int failWith(int error) {
    errno = error;
    return -1;
}

bool isFpga(std::string_view path) { return path == kFpgaDevice; }

int openUart(Machine& machine, Uart& uart, int flags) {
    if (!uart.plugged()) return failWith(ENXIO);
    const int fd = real().open("/dev/null", O_RDWR | (flags & O_CLOEXEC));
    if (fd < 0) return fd;
    uart.opened();
    machine.files[fd] = {uart.path(), &uart, flags, nullptr};
    return fd;
}

int openFpga(Machine& machine, int flags) {
    const int fd = real().open("/dev/null", O_RDWR | (flags & O_CLOEXEC));
    if (fd < 0) return fd;
    machine.fpga.checkOpenMode(flags);
    machine.files[fd] = {kFpgaDevice, nullptr, flags, nullptr, &machine.fpga};
    return fd;
}

int openSysfs(Machine& machine, const char* path, int flags) {
    const int access = flags & O_ACCMODE;
    if (const int error = machine.sysfs.refusal(path, access != O_WRONLY, access != O_RDONLY)) {
        return failWith(error);
    }
    const int fd = real().open("/dev/null", O_RDWR | (flags & O_CLOEXEC));
    if (fd >= 0) machine.files[fd] = {path, nullptr, flags, machine.sysfs.open(path)};
    return fd;
}

int openFile(Machine& machine, OpenCall call, const char* path, int flags, mode_t mode) {
    std::shared_ptr<FileHandle> handle;
    int fd = -1;
    if (machine.filesInMemory) {
        const int error = machine.filesInMemory->open(machine.nameInMemory(path), flags, &handle);
        if (error != 0) return failWith(error);
        fd = real().open("/dev/null", O_RDWR | (flags & O_CLOEXEC));
    } else {
        fd = call(machine.hostPath(path).c_str(), flags, mode);
    }
    if (fd >= 0) machine.files[fd] = {path, nullptr, flags, handle};
    return fd;
}

Probes::Use useOf(int flags) {
    if ((flags & O_CREAT) != 0) return Probes::Use::kCreate;
    return (flags & O_ACCMODE) == O_RDONLY ? Probes::Use::kRead : Probes::Use::kWrite;
}

Probes::Use useOf(const char* mode) {
    if (mode[0] != 'r') return Probes::Use::kCreate;
    return strchr(mode, '+') == nullptr ? Probes::Use::kRead : Probes::Use::kWrite;
}

int openOnBoard(Machine& machine, OpenCall call, const char* path, int flags, mode_t mode) {
    Guard guard(boardLock());
    if (machine.dead()) return failWith(EIO);
    if (const auto fault = machine.faults.take(Call::kOpen, path)) return failWith(fault->error);
    if (const int error = machine.probes.refusal(path, useOf(flags))) return failWith(error);
    int fd = -1;
    if (Uart* uart = machine.uartAt(path)) {
        // Without O_NONBLOCK it waits for the line's carrier.
        const bool waits = (flags & O_NONBLOCK) == 0;
        if (waits && machine.interrupts("open", path)) return failWith(EINTR);
        fd = openUart(machine, *uart, flags);
    } else if (machine.sysfs.exists(path)) {
        fd = openSysfs(machine, path, flags);
    } else if (isFpga(path)) {
        fd = openFpga(machine, flags);
    } else {
        fd = openFile(machine, call, path, flags, mode);
    }
    const int error = errno;
    machine.trace.add(EventKind::kOpen, path, fd < 0 ? strerrorname_np(error) : "");
    errno = error;
    return fd;
}

int openLent(Machine& machine, OpenCall call, const char* path, int flags, mode_t mode) {
    Guard guard(boardLock());
    if (machine.dead()) return failWith(EIO);
    const int fd = call(path, flags, mode);
    const int error = errno;
    if (fd >= 0) machine.lentDevices.opened(fd, path);
    machine.trace.add(EventKind::kOpen, path, fd < 0 ? strerrorname_np(error) : "");
    errno = error;
    return fd;
}

int openAnywhere(OpenCall call, const char* path, int flags, mode_t mode) {
    Machine* machine = machineForCall();
    if (machine != nullptr && path != nullptr && machine->lentDevices.has(path)) {
        return openLent(*machine, call, path, flags, mode);
    }
    if (machine == nullptr || !Machine::isBoards(path)) return call(path, flags, mode);
    return openOnBoard(*machine, call, path, flags, mode);
}

mode_t modeOf(int flags, va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? static_cast<mode_t>(va_arg(arguments, int)) : 0;
}

// A lent device goes on without the board's power, but nothing of the board reaches it any more.
bool isCutOff(const Machine& machine, int fd) {
    return machine.dead() && machine.lentDevices.isOpen(fd);
}

// A reader of an empty pipe or socket waits in board time, so that other threads get their turn.
void waitForPipe(Machine& machine, int fd) {
    struct stat info {};
    if (fd == 0 || machine.options.realtime || !Scheduler::attached()) return;
    if (fstat(fd, &info) != 0 || S_ISREG(info.st_mode) || S_ISCHR(info.st_mode)) return;
    if ((real().fcntl(fd, F_GETFL) & O_NONBLOCK) != 0) return;
    pollfd entry{fd, POLLIN, 0};
    while (real().poll(&entry, 1, 0) == 0 && poweredMachine() == &machine) {
        machine.scheduler.park("input", &machine);
    }
}

ssize_t resultOf(ssize_t result) {
    if (result >= 0) return result;
    errno = static_cast<int>(-result);
    return -1;
}

// A fault that shortens a read shortens the result, not the SPI transaction.
ssize_t readFpga(Fpga& fpga, void* data, size_t whole, size_t count) {
    const ssize_t done = fpga.spiRead({static_cast<uint8_t*>(data), whole});
    return resultOf(std::min(done, static_cast<ssize_t>(count)));
}

// What a transfer needs of its file: while it waits, another thread may close the descriptor.
struct Transfer {
    explicit Transfer(const OpenFile& file)
        : uart(file.uart),
          fpga(file.fpga),
          handle(file.handle),
          isAttribute(file.isAttribute()),
          nonBlocking((file.flags & O_NONBLOCK) != 0) {}

    Uart* const uart;
    Fpga* const fpga;
    const std::shared_ptr<FileHandle> handle;
    const bool isAttribute, nonBlocking;
};

// As the kernel says it of a buffer that is not there.
bool isNowhere(const void* data, size_t count) { return data == nullptr && count > 0; }

ssize_t readOnBoard(Machine& machine, const OpenFile& opened, int fd, void* data, size_t count) {
    const size_t whole = count;
    const Transfer file(opened);
    if (machine.dead()) return failWith(EIO);
    if (isNowhere(data, count)) return failWith(EFAULT);
    if (const auto fault = machine.faults.take(Call::kRead, opened.path)) {
        machine.spend(*fault);
        if (fault->error != 0) return failWith(fault->error);
        if (fault->shortTo) count = std::min(count, *fault->shortTo);
    }
    if (file.isAttribute) return resultOf(file.handle->read(static_cast<char*>(data), count));
    if (file.fpga != nullptr) return readFpga(*file.fpga, data, whole, count);
    count = machine.chances.transferred(count);
    if (file.handle) return resultOf(file.handle->read(static_cast<char*>(data), count));
    if (file.uart == nullptr) return real().read(fd, data, count);
    const bool mayWait = !file.nonBlocking;
    if (mayWait && machine.interrupts("read", file.uart->path())) return failWith(EINTR);
    return resultOf(file.uart->hostRead(static_cast<uint8_t*>(data), count, file.nonBlocking));
}

ssize_t writeOnBoard(Machine& machine, const OpenFile& opened, int fd, const void* data,
                     size_t count) {
    const size_t whole = count;
    const Transfer file(opened);
    if (machine.dead()) return failWith(EIO);
    if (isNowhere(data, count)) return failWith(EFAULT);
    if (const auto fault = machine.faults.take(Call::kWrite, opened.path)) {
        if (fault->error != 0) return failWith(fault->error);
        if (fault->lostSilently) return static_cast<ssize_t>(count);
        if (fault->shortTo) count = std::min(count, *fault->shortTo);
    }
    if (file.isAttribute) {
        return resultOf(file.handle->write(static_cast<const char*>(data), count));
    }
    if (file.fpga != nullptr) {
        return resultOf(
            file.fpga->spiWrite({static_cast<const uint8_t*>(data), count}, count < whole));
    }
    count = machine.chances.transferred(count);
    if (file.handle) return resultOf(file.handle->write(static_cast<const char*>(data), count));
    if (file.uart == nullptr) return real().write(fd, data, count);
    const bool mayWait = !file.nonBlocking;
    if (mayWait && machine.interrupts("write", file.uart->path())) return failWith(EINTR);
    const auto* bytes = static_cast<const uint8_t*>(data);
    return resultOf(file.uart->hostWrite(bytes, count, file.nonBlocking));
}

int closeOnBoard(Machine& machine, OpenFile file, int fd) {
    const auto fault = machine.faults.take(Call::kClose, file.path);
    machine.trace.add(EventKind::kClose, file.path, "");
    machine.files.erase(fd);
    if (file.uart != nullptr) file.uart->closed();
    const int result = real().close(fd);
    return fault ? failWith(fault->error) : result;
}

// The board keeps the status flags of its devices; other commands act on the descriptor.
int fcntlOnBoard(Machine& machine, OpenFile& file, int fd, int command, void* argument) {
    if (machine.dead()) return failWith(EIO);
    if (const auto fault = machine.faults.take(Call::kFcntl, file.path)) {
        return failWith(fault->error);
    }
    if (file.uart == nullptr) return real().fcntl(fd, command, argument);
    if (command == F_GETFL) return file.flags & ~(O_CREAT | O_NOCTTY | O_CLOEXEC);
    if (command != F_SETFL) return real().fcntl(fd, command, argument);
    constexpr int kChangeable = O_NONBLOCK | O_APPEND;
    const int flags = static_cast<int>(reinterpret_cast<intptr_t>(argument));
    file.flags = (file.flags & ~kChangeable) | (flags & kChangeable);
    return 0;
}

int fcntlAnywhere(int fd, int command, void* argument) {
    Machine* machine = machineForCall();
    if (machine == nullptr) return real().fcntl(fd, command, argument);
    Guard guard(boardLock());
    OpenFile* file = machine->openFile(fd);
    if (file == nullptr) return real().fcntl(fd, command, argument);
    return fcntlOnBoard(*machine, *file, fd, command, argument);
}

FILE* fopenSysfs(Machine& machine, const char* path, const char* mode) {
    const bool both = strchr(mode, '+') != nullptr, reads = mode[0] == 'r';
    const int error = machine.sysfs.refusal(path, reads || both, !reads || both);
    if (error == 0) return openStream(machine.sysfs.open(path), mode);
    errno = error;
    return nullptr;
}

FILE* fopenInMemory(Machine& machine, const char* path, const char* mode) {
    std::shared_ptr<FileHandle> handle;
    const std::string name = machine.nameInMemory(path);
    if (const int error = machine.filesInMemory->open(name, flagsOf(mode), &handle)) {
        errno = error;
        return nullptr;
    }
    return openStream(handle, mode);
}

FILE* fopenAnywhere(FILE* (*call)(const char*, const char*), const char* path, const char* mode) {
    Machine* machine = machineForCall();
    if (machine == nullptr || !Machine::isBoards(path)) return call(path, mode);
    Guard guard(boardLock());
    if (machine->dead()) {
        errno = EIO;
        return nullptr;
    }
    if (const auto fault = machine->faults.take(Call::kFopen, path)) {
        errno = fault->error;
        return nullptr;
    }
    if (const int error = machine->probes.refusal(path, useOf(mode))) {
        errno = error;
        return nullptr;
    }
    machine->trace.add(EventKind::kOpen, path, mode);
    if (machine->sysfs.exists(path)) return fopenSysfs(*machine, path, mode);
    if (machine->filesInMemory) return fopenInMemory(*machine, path, mode);
    return call(machine->hostPath(path).c_str(), mode);
}

template <typename Info>
int statusInMemory(const Machine& machine, const char* path, Info* info) {
    MemoryFiles::Status status{};
    if (const int error = machine.filesInMemory->status(machine.nameInMemory(path), &status)) {
        return failWith(error);
    }
    if (info == nullptr) return 0;
    *info = {};
    info->st_mode = status.isFolder ? S_IFDIR | 0755 : S_IFREG | 0644;
    info->st_nlink = 1;
    info->st_size = static_cast<off_t>(status.size);
    return 0;
}

// For calls that only need the path translated, or what takes their place on a board in memory; a
// fault takes the place of both.
template <typename Function, typename InMemory>
int withHostPath(Call call, const char* path, Function function, InMemory inMemory) {
    Machine* machine = machineForCall();
    if (machine == nullptr || !Machine::isBoards(path)) return function(path);
    Guard guard(boardLock());
    if (machine->dead()) return failWith(EIO);
    if (const auto fault = machine->faults.take(call, path)) return failWith(fault->error);
    const auto use = call == Call::kRemove ? Probes::Use::kWrite : Probes::Use::kRead;
    if (const int error = machine->probes.refusal(path, use)) return failWith(error);
    if (machine->uartAt(path) != nullptr || isFpga(path)) return function(kSomeFile);
    if (machine->sysfs.exists(path)) {
        return call == Call::kRemove ? failWith(EPERM) : function(kSomeFile);
    }
    if (machine->filesInMemory) return inMemory(*machine);
    return function(machine->hostPath(path).c_str());
}

}  // namespace

extern "C" {

QUIL_EXPORT int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return openAnywhere(real().open, path, flags, mode);
}

QUIL_EXPORT int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return openAnywhere(real().open64, path, flags, mode);
}

QUIL_EXPORT int __open_2(const char* path, int flags) {
    return openAnywhere(real().open, path, flags, 0);
}

QUIL_EXPORT int __open64_2(const char* path, int flags) {
    return openAnywhere(real().open64, path, flags, 0);
}

QUIL_EXPORT ssize_t read(int fd, void* data, size_t count) {
    Machine* machine = machineForCall();
    if (machine == nullptr) return real().read(fd, data, count);
    {
        Guard guard(boardLock());
        if (const OpenFile* file = machine->openFile(fd)) {
            const ssize_t done = readOnBoard(*machine, *file, fd, data, count);
            if (done < 0) machine->readFailed();
            return done;
        }
        if (isCutOff(*machine, fd)) return failWith(EIO);
        waitForPipe(*machine, fd);
    }
    const ssize_t result = real().read(fd, data, count);
    const int error = errno;
    Guard guard(boardLock());
    machine->lentDevices.transferred(fd, EventKind::kUartRx, data, result);
    errno = error;
    return result;
}

QUIL_EXPORT ssize_t __read_chk(int fd, void* data, size_t count, size_t room) {
    if (count > room) abort();
    return read(fd, data, count);
}

QUIL_EXPORT ssize_t write(int fd, const void* data, size_t count) {
    Machine* machine = machineForCall();
    if (machine == nullptr) return real().write(fd, data, count);
    Guard guard(boardLock());
    if (const OpenFile* file = machine->openFile(fd)) {
        return writeOnBoard(*machine, *file, fd, data, count);
    }
    const bool mayWrite = machine->lentDevices.mayWrite(fd, data, count);
    if (!mayWrite || isCutOff(*machine, fd)) return failWith(EIO);
    const ssize_t result = real().write(fd, data, count);
    const int error = errno;
    machine->lentDevices.transferred(fd, EventKind::kUartTx, data, result);
    if (machine->scheduler.anyoneParked()) machine->readinessChanged();
    errno = error;
    return result;
}

// On a board's file each part is one write; the first incomplete write ends the call.
QUIL_EXPORT ssize_t writev(int fd, const iovec* parts, int count) {
    Machine* machine = machineForCall();
    if (machine == nullptr) return real().writev(fd, parts, count);
    Guard guard(boardLock());
    const OpenFile* file = machine->openFile(fd);
    if (file == nullptr) return real().writev(fd, parts, count);
    ssize_t total = 0;
    for (const iovec* part = parts; part != parts + count; ++part) {
        const ssize_t done = writeOnBoard(*machine, *file, fd, part->iov_base, part->iov_len);
        if (done < 0) return total > 0 ? total : done;
        total += done;
        if (done < static_cast<ssize_t>(part->iov_len)) break;
    }
    return total;
}

QUIL_EXPORT int dup(int fd) noexcept {
    Machine* machine = machineForCall();
    if (machine == nullptr) return real().dup(fd);
    Guard guard(boardLock());
    const int copy = real().dup(fd);
    const OpenFile* file = machine->openFile(fd);
    if (copy < 0 || file == nullptr) return copy;
    machine->files[copy] = *file;
    if (file->uart != nullptr) file->uart->opened();
    return copy;
}

QUIL_EXPORT int close(int fd) {
    Machine* machine = machineForCall();
    if (machine == nullptr) return real().close(fd);
    Guard guard(boardLock());
    const OpenFile* file = machine->openFile(fd);
    machine->lentDevices.closed(fd);
    const int result = file ? closeOnBoard(*machine, *file, fd) : real().close(fd);
    const int error = errno;
    machine->readinessChanged();
    errno = error;
    return result;
}

QUIL_EXPORT int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return fcntlAnywhere(fd, command, argument);
}

QUIL_EXPORT int fcntl64(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return fcntlAnywhere(fd, command, argument);
}

// In memory every file may be read and written, and none be run.
QUIL_EXPORT int access(const char* path, int mode) noexcept {
    return withHostPath(
        Call::kAccess, path, [mode](const char* at) { return real().access(at, mode); },
        [=](const Machine& machine) {
            struct stat info {};
            if (statusInMemory(machine, path, &info) != 0) return -1;
            return (mode & X_OK) != 0 && S_ISREG(info.st_mode) ? failWith(EACCES) : 0;
        });
}

QUIL_EXPORT int stat(const char* path, struct stat* info) noexcept {
    return withHostPath(
        Call::kStat, path, [info](const char* at) { return real().stat(at, info); },
        [=](const Machine& machine) { return statusInMemory(machine, path, info); });
}

QUIL_EXPORT int stat64(const char* path, struct stat64* info) noexcept {
    return withHostPath(
        Call::kStat, path, [info](const char* at) { return real().stat64(at, info); },
        [=](const Machine& machine) { return statusInMemory(machine, path, info); });
}

QUIL_EXPORT int remove(const char* path) noexcept {
    return withHostPath(
        Call::kRemove, path, [](const char* at) { return real().remove(at); },
        [=](Machine& machine) {
            const int error = machine.filesInMemory->remove(machine.nameInMemory(path));
            return error != 0 ? failWith(error) : 0;
        });
}

QUIL_EXPORT FILE* fopen(const char* path, const char* mode) {
    return fopenAnywhere(real().fopen, path, mode);
}

QUIL_EXPORT FILE* fopen64(const char* path, const char* mode) {
    return fopenAnywhere(real().fopen64, path, mode);
}

QUIL_EXPORT int system(const char* command) {
    Machine* machine = machineForCall();
    if (machine == nullptr || command == nullptr) return real().system(command);
    return machine->shell.run(command);
}

}  // extern "C"
