// Terminal settings, and waiting for several descriptors at once.
#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "board/core/real_calls.h"
#include "board/interpose/interpose.h"
#include "board/machine.h"

using namespace quil::board;

namespace {

// Runs `action` on the serial port behind the descriptor, or `otherwise` if it is not the board's.
template <typename Action, typename Otherwise>
int onUart(Call call, int fd, Action action, Otherwise otherwise) {
    Machine* machine = machineForCall();
    if (machine == nullptr) return otherwise();
    Guard guard(boardLock());
    const OpenFile* file = machine->openFile(fd);
    if (file == nullptr) return otherwise();
    const auto fault = machine->faults.take(call, file->path);
    const int error = machine->dead() ? EIO
                      : fault         ? fault->error
                      : file->uart    ? action(*file->uart)
                                      : ENOTTY;
    if (error == 0) return 0;
    errno = error;
    return -1;
}

// The events for which a poll entry's descriptor is ready now.
short readyNow(Machine& machine, const pollfd& entry) {
    const OpenFile* file = machine.openFile(entry.fd);
    if (file == nullptr || file->uart == nullptr) {
        pollfd copy{entry.fd, entry.events, 0};
        real().poll(&copy, 1, 0);
        return copy.revents;
    }
    int ready = 0;
    if (file->uart->readable()) ready |= POLLIN;
    if (file->uart->writable()) ready |= POLLOUT;
    ready &= entry.events;
    if (!file->uart->plugged()) ready |= POLLHUP;
    return static_cast<short>(ready);
}

int countReady(Machine& machine, std::vector<pollfd>& entries) {
    int count = 0;
    for (pollfd& entry : entries) {
        entry.revents = entry.fd < 0 ? short{0} : readyNow(machine, entry);
        if (entry.revents != 0) ++count;
    }
    return count;
}

// A pipe's other end is in this process; a terminal's or a socket's may be in another program.
bool isOutside(const pollfd& entry) {
    struct stat info {};
    return fstat(entry.fd, &info) != 0 || !S_ISFIFO(info.st_mode);
}

// In real time nothing wakes the board for descriptors that are not its own: it polls them. A lent
// device answers within a millisecond.
Look nextLook(Machine& machine, const std::vector<pollfd>& entries) {
    Look look;
    if (!machine.options.realtime) return look;
    bool isLent = false;
    for (const pollfd& entry : entries) {
        if (machine.openFile(entry.fd) != nullptr) continue;
        look.isOutside = look.isOutside || isOutside(entry);
        isLent = isLent || machine.lentDevices.isOpen(entry.fd);
    }
    look.at = machine.scheduler.now() + std::chrono::milliseconds(isLent ? 1 : 5);
    return look;
}

int waitForAny(Machine& machine, std::vector<pollfd>& entries, std::optional<Nanos> timeout) {
    Scheduler& scheduler = machine.scheduler;
    std::optional<Nanos> deadline;
    if (timeout) deadline = scheduler.now() + *timeout;
    while (true) {
        const int count = countReady(machine, entries);
        if (count > 0 || poweredMachine() != &machine) return count;
        if (deadline && scheduler.now() >= *deadline) return 0;
        scheduler.park("one of several descriptors", &machine, deadline,
                       nextLook(machine, entries));
    }
}

// The same, but chance may have it that a signal interrupts the wait: -1 with EINTR.
int waitAsCalled(Machine& machine, std::vector<pollfd>& entries, std::optional<Nanos> timeout) {
    constexpr Nanos kOfAnEndlessWait = std::chrono::seconds(1);
    const Nanos wait = timeout.value_or(kOfAnEndlessWait);
    const auto after = wait > Nanos(0) ? machine.chances.interruption(wait) : std::nullopt;
    const int ready = waitForAny(machine, entries, after ? after : timeout);
    if (!after || ready > 0) return ready;
    machine.trace.add(EventKind::kFault, "descriptors", "a wait that is interrupted");
    errno = EINTR;
    return -1;
}

bool boardsBusiness(Machine& machine, const std::vector<pollfd>& entries) {
    if (Scheduler::attached()) return true;
    return std::any_of(entries.begin(), entries.end(),
                       [&](const pollfd& entry) { return machine.openFile(entry.fd) != nullptr; });
}

int faultOf(Machine& machine, Call call, const std::vector<pollfd>& entries) {
    if (machine.dead()) return EIO;
    for (const pollfd& entry : entries) {
        const OpenFile* file = machine.openFile(entry.fd);
        if (file == nullptr) continue;
        const auto fault = machine.faults.take(call, file->path);
        if (!fault) continue;
        machine.spend(*fault);
        return fault->error;
    }
    return 0;
}

std::vector<pollfd> entriesOf(int count, const fd_set* in, const fd_set* out,
                              const fd_set* except) {
    std::vector<pollfd> entries;
    for (int fd = 0; fd < count; ++fd) {
        int events = 0;
        if (in != nullptr && FD_ISSET(fd, in)) events |= POLLIN;
        if (out != nullptr && FD_ISSET(fd, out)) events |= POLLOUT;
        if (except != nullptr && FD_ISSET(fd, except)) events |= POLLPRI;
        if (events != 0) entries.push_back({fd, static_cast<short>(events), 0});
    }
    return entries;
}

int report(const std::vector<pollfd>& entries, fd_set* in, fd_set* out, fd_set* except) {
    for (fd_set* set : {in, out, except}) {
        if (set != nullptr) FD_ZERO(set);
    }
    int count = 0;
    const auto mark = [&count](fd_set* set, int fd, bool ready) {
        if (!ready || set == nullptr) return;
        FD_SET(fd, set);
        ++count;
    };
    for (const pollfd& entry : entries) {
        constexpr short kGone = POLLHUP | POLLERR;
        mark(in, entry.fd, (entry.events & POLLIN) && (entry.revents & (POLLIN | kGone)));
        mark(out, entry.fd, (entry.events & POLLOUT) && (entry.revents & (POLLOUT | POLLERR)));
        mark(except, entry.fd, (entry.revents & POLLPRI) != 0);
    }
    return count;
}

}  // namespace

extern "C" {

QUIL_EXPORT int tcgetattr(int fd, termios* settings) noexcept {
    return onUart(
        Call::kTcgetattr, fd, [settings](Uart& uart) { return uart.getattr(settings); },
        [=] { return real().tcgetattr(fd, settings); });
}

QUIL_EXPORT int tcsetattr(int fd, int when, const termios* settings) noexcept {
    return onUart(
        Call::kTcsetattr, fd, [settings](Uart& uart) { return uart.setattr(*settings); },
        [=] { return real().tcsetattr(fd, when, settings); });
}

QUIL_EXPORT int tcflush(int fd, int queue) noexcept {
    return onUart(
        Call::kTcflush, fd, [queue](Uart& uart) { return uart.flush(queue); },
        [=] { return real().tcflush(fd, queue); });
}

QUIL_EXPORT int poll(pollfd* entries, nfds_t count, int timeoutMs) {
    Machine* machine = machineForCall();
    if (machine == nullptr) return real().poll(entries, count, timeoutMs);
    {
        Guard guard(boardLock());
        std::vector<pollfd> copies(entries, entries + count);
        if (boardsBusiness(*machine, copies)) {
            errno = faultOf(*machine, Call::kPoll, copies);
            if (errno != 0) return -1;
            std::optional<Nanos> timeout;
            if (timeoutMs >= 0) timeout = std::chrono::milliseconds(timeoutMs);
            const int ready = waitAsCalled(*machine, copies, timeout);
            std::copy(copies.begin(), copies.end(), entries);
            return static_cast<short>(ready);
        }
    }
    return real().poll(entries, count, timeoutMs);
}

QUIL_EXPORT int __poll_chk(pollfd* entries, nfds_t count, int timeoutMs, size_t room) {
    if (count > room / sizeof(pollfd)) abort();
    return poll(entries, count, timeoutMs);
}

QUIL_EXPORT int select(int count, fd_set* in, fd_set* out, fd_set* except, timeval* limit) {
    Machine* machine = machineForCall();
    if (machine == nullptr) return real().select(count, in, out, except, limit);
    {
        Guard guard(boardLock());
        std::vector<pollfd> entries = entriesOf(count, in, out, except);
        if (boardsBusiness(*machine, entries)) {
            errno = faultOf(*machine, Call::kSelect, entries);
            if (errno != 0) return -1;
            std::optional<Nanos> timeout;
            if (limit != nullptr) {
                timeout = std::chrono::seconds(limit->tv_sec) + Micros(limit->tv_usec);
            }
            if (waitAsCalled(*machine, entries, timeout) < 0) return -1;
            return report(entries, in, out, except);
        }
    }
    return real().select(count, in, out, except, limit);
}

}  // extern "C"
