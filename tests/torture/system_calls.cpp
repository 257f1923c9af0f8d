#include "tests/torture/system_calls.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>

namespace quil::torture {
namespace {

constexpr int kNone = -1;

// What a call does, and which of its arguments say to what: a path, relative to a directory's
// descriptor when there is one, or the descriptor of an open file.
struct CallRow {
    uint32_t number;
    Effect effect;
    int path = kNone;
    int directory = kNone;
    int file = kNone;
    int openFlags = kNone;  // these say more than `effect`
};

constexpr std::array kRows = {
    CallRow{
        .number = SYS_openat, .effect = Effect::kLooks, .path = 1, .directory = 0, .openFlags = 2},
    CallRow{.number = SYS_read, .effect = Effect::kLooks},
    CallRow{.number = SYS_close, .effect = Effect::kLooks},
    CallRow{.number = SYS_write, .effect = Effect::kAdds, .file = 0},
    CallRow{.number = SYS_writev, .effect = Effect::kAdds, .file = 0},
    CallRow{.number = SYS_pwrite64, .effect = Effect::kAdds, .file = 0},
    CallRow{.number = SYS_pwritev, .effect = Effect::kAdds, .file = 0},
    CallRow{.number = SYS_sendfile, .effect = Effect::kAdds, .file = 0},
    CallRow{.number = SYS_copy_file_range, .effect = Effect::kAdds, .file = 2},
    CallRow{.number = SYS_fallocate, .effect = Effect::kAdds, .file = 0},
    CallRow{.number = SYS_fsync, .effect = Effect::kAdds, .file = 0},
    CallRow{.number = SYS_fdatasync, .effect = Effect::kAdds, .file = 0},
    CallRow{.number = SYS_ftruncate, .effect = Effect::kRemoves, .file = 0},
    CallRow{.number = SYS_renameat, .effect = Effect::kAdds, .path = 3, .directory = 2},
    CallRow{.number = SYS_renameat2, .effect = Effect::kAdds, .path = 3, .directory = 2},
    CallRow{.number = SYS_linkat, .effect = Effect::kAdds, .path = 3, .directory = 2},
    CallRow{.number = SYS_symlinkat, .effect = Effect::kAdds, .path = 2, .directory = 1},
    CallRow{.number = SYS_mkdirat, .effect = Effect::kAdds, .path = 1, .directory = 0},
    CallRow{.number = SYS_unlinkat, .effect = Effect::kRemoves, .path = 1, .directory = 0},
#ifdef SYS_open  // newer architectures have only the calls above
    CallRow{.number = SYS_open, .effect = Effect::kLooks, .path = 0, .openFlags = 1},
    CallRow{.number = SYS_creat, .effect = Effect::kAdds, .path = 0},
    CallRow{.number = SYS_rename, .effect = Effect::kAdds, .path = 1},
    CallRow{.number = SYS_link, .effect = Effect::kAdds, .path = 1},
    CallRow{.number = SYS_symlink, .effect = Effect::kAdds, .path = 1},
    CallRow{.number = SYS_mkdir, .effect = Effect::kAdds, .path = 0},
    CallRow{.number = SYS_unlink, .effect = Effect::kRemoves, .path = 0},
    CallRow{.number = SYS_rmdir, .effect = Effect::kRemoves, .path = 0},
#endif
    CallRow{.number = SYS_rt_sigaction, .effect = Effect::kCatches},
    CallRow{.number = SYS_rt_sigprocmask, .effect = Effect::kCatches},
    CallRow{.number = SYS_rt_sigtimedwait, .effect = Effect::kAwaits},
};

// The kernel's filter: what the rows name waits for us, all else happens at once.
constexpr auto filterProgram() {
    std::array<sock_filter, 2 * kRows.size() + 2> program{};
    size_t at = 0;
    program[at++] = BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr));
    for (const CallRow& row : kRows) {
        program[at++] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, row.number, 0, 1);
        program[at++] = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF);
    }
    program[at++] = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    return program;
}
constexpr auto kFilter = filterProgram();

// A message of one byte that has room for a descriptor.
struct DescriptorMessage {
    char byte = 0;
    iovec data{&byte, 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr header{};

    DescriptorMessage() {
        header.msg_iov = &data;
        header.msg_iovlen = 1;
        header.msg_control = control.data();
        header.msg_controllen = control.size();
    }
    cmsghdr* rights() { return CMSG_FIRSTHDR(&header); }
};

// What another process has at an address; shorter where it has nothing.
std::string bytesAt(pid_t process, uint64_t address, size_t most) {
    std::string bytes(most, '\0');
    iovec here{bytes.data(), most};
    iovec there{reinterpret_cast<void*>(address), most};
    const ssize_t n = process_vm_readv(process, &here, 1, &there, 1, 0);
    bytes.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return bytes;
}

std::string textAt(pid_t process, uint64_t address) {
    // Page by page: the next one may not be there.
    constexpr uint64_t kPage = 4096;
    std::string text;
    while (text.size() < PATH_MAX && text.find('\0') == std::string::npos) {
        const uint64_t from = address + text.size();
        const std::string more = bytesAt(process, from, kPage - from % kPage);
        if (more.empty()) break;
        text += more;
    }
    return text.substr(0, text.find('\0'));
}

std::string linkAt(pid_t process, const std::string& name) {
    std::error_code gone;
    return std::filesystem::read_symlink("/proc/" + std::to_string(process) + "/" + name, gone);
}

std::string openedAs(pid_t process, int file) {
    return linkAt(process, "fd/" + std::to_string(file));
}

std::string pathOf(const CallRow& row, const seccomp_notif& call) {
    const auto process = static_cast<pid_t>(call.pid);
    const auto argument = [&call](int index) { return call.data.args[index]; };
    if (row.file != kNone) return openedAs(process, static_cast<int>(argument(row.file)));
    if (row.path == kNone) return "";
    const std::filesystem::path named = textAt(process, argument(row.path));
    if (named.is_absolute()) return named.lexically_normal();
    const int directory =
        row.directory == kNone ? AT_FDCWD : static_cast<int>(argument(row.directory));
    const std::filesystem::path base =
        directory == AT_FDCWD ? linkAt(process, "cwd") : openedAs(process, directory);
    return (base / named).lexically_normal();
}

bool opensToWrite(const CallRow& row, const seccomp_notif& call) {
    if (row.openFlags == kNone) return false;
    const auto flags = static_cast<int>(call.data.args[row.openFlags]);
    return (flags & O_ACCMODE) != O_RDONLY || (flags & (O_CREAT | O_TRUNC)) != 0;
}

// SIGINT gets a handler, or is blocked, as a program does that waits for it: a library that guards
// its own state blocks all signals.
bool catchesInterrupt(const seccomp_notif& call) {
    const auto& arguments = call.data.args;
    if (call.data.nr == SYS_rt_sigaction) return arguments[0] == SIGINT && arguments[1] != 0;
    uint64_t set = 0;
    const std::string bytes = bytesAt(static_cast<pid_t>(call.pid), arguments[1], sizeof(set));
    if (arguments[0] != SIG_BLOCK || bytes.size() != sizeof(set)) return false;
    memcpy(&set, bytes.data(), sizeof(set));
    const auto has = [set](int signal) { return (set >> (signal - 1) & 1) != 0; };
    return has(SIGINT) && !has(SIGSEGV);
}

SystemCall describe(const seccomp_notif& call) {
    const auto row = std::find_if(kRows.begin(), kRows.end(), [&call](const CallRow& one) {
        return one.number == static_cast<uint32_t>(call.data.nr);
    });
    if (row == kRows.end()) return {};
    Effect effect = opensToWrite(*row, call) ? Effect::kAdds : row->effect;
    if (effect == Effect::kCatches && !catchesInterrupt(call)) effect = Effect::kOther;
    const bool hasLimit = call.data.args[2] != 0;
    if (effect == Effect::kAwaits && !hasLimit) effect = Effect::kOther;
    return {effect, pathOf(*row, call)};
}

}  // namespace

bool offerCalls(int socket) {
    const sock_fprog program{kFilter.size(), const_cast<sock_filter*>(kFilter.data())};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
    const int listener = static_cast<int>(
        syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program));
    if (listener < 0) return false;
    DescriptorMessage message;
    message.rights()->cmsg_level = SOL_SOCKET;
    message.rights()->cmsg_type = SCM_RIGHTS;
    message.rights()->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(message.rights()), &listener, sizeof(listener));
    return sendmsg(socket, &message.header, 0) == 1;  // and exec closes the listener here
}

int takeOffer(int socket) {
    DescriptorMessage message;
    if (recvmsg(socket, &message.header, MSG_CMSG_CLOEXEC) != 1) return -1;
    if (message.rights() == nullptr) return -1;
    int listener = -1;
    memcpy(&listener, CMSG_DATA(message.rights()), sizeof(listener));
    return listener;
}

std::optional<WaitingCall> nextCall(int listener) {
    seccomp_notif call{};
    if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) return std::nullopt;
    return WaitingCall{call.id, describe(call)};
}

void answerCall(int listener, uint64_t id, int error) {
    seccomp_notif_resp answer{};
    answer.id = id;
    answer.error = -error;
    if (error == 0) answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);  // a call that was given up needs none
}

}  // namespace quil::torture
