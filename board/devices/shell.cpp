#include "board/devices/shell.h"

#include <errno.h>
#include <string.h>

#include <array>
#include <optional>
#include <stdexcept>

#include "board/core/real_calls.h"

namespace quil::board {
namespace {

int waitStatus(int exitCode) { return (exitCode & 0xFF) << 8; }

ProgramResult echo(const std::vector<std::string>& argv) {
    const bool noNewline = argv.size() > 1 && argv[1] == "-n";
    std::string text;
    for (size_t i = noNewline ? 2 : 1; i < argv.size(); ++i) {
        if (!text.empty() || i > (noNewline ? 2U : 1U)) text += ' ';
        text += argv[i];
    }
    return {0, noNewline ? text : text + "\n"};
}

std::string because(int error) { return std::string(": ") + strerror(error) + "\n"; }

}  // namespace

// Where a command's output goes: to a file, or to the descriptor of the program that called
// system().
struct Shell::Streams {
    std::array<std::optional<std::string>, 3> files;
    std::array<int, 3> inherited = {0, 1, 2};
};

Shell::Shell(BoardServices& board, Sysfs& sysfs, const Probes& probes)
    : mBoard(board), mSysfs(sysfs), mProbes(probes) {
    mPrograms["echo"] = echo;
    mPrograms["sleep"] = [this](const auto& argv) { return sleepFor(argv); };
    mPrograms["cat"] = [this](const auto& argv) { return cat(argv); };
    mPrograms["true"] = mPrograms[":"] = [](const auto&) { return ProgramResult{}; };
    mPrograms["false"] = [](const auto&) { return ProgramResult{kFailed}; };
}
Shell::~Shell() = default;

void Shell::add(const std::string& name, Program program) {
    Guard guard(boardLock());
    mPrograms[name] = std::move(program);
}

void Shell::remove(const std::string& name) {
    Guard guard(boardLock());
    mPrograms.erase(name);
}

ProgramResult Shell::sleepFor(const std::vector<std::string>& argv) {
    char* end = nullptr;
    const double seconds = argv.size() > 1 ? strtod(argv[1].c_str(), &end) : -1;
    if (end == nullptr || *end != '\0' || !(seconds >= 0 && seconds < 1e9)) {
        return {kFailed, "", "sleep: not a number\n"};
    }
    mBoard.scheduler.sleepFor(Nanos(static_cast<int64_t>(seconds * 1e9)), "a program");
    return {};
}

int Shell::run(const std::string& line) {
    Scheduler::arrive();
    Guard guard(boardLock());
    const auto fault = mBoard.faults.take(Call::kSystem, line);
    mBoard.trace.add(EventKind::kShell, "sh", line);
    if (mBoard.power.isCut()) {
        errno = EIO;
        return -1;
    }
    if (fault && fault->exitCode) return waitStatus(*fault->exitCode);
    if (fault && fault->signal)
        return *fault->signal;  // a wait status holds the signal in its low bits
    if (fault && fault->error != 0) {
        errno = fault->error;
        return -1;
    }
    if (fault) return 0;
    int exitCode = 0;
    try {
        for (const Command& command : parseShellLine(line)) {
            if (command.before == "&&" && exitCode != 0) continue;
            if (command.before == "||" && exitCode == 0) continue;
            exitCode = runCommand(command);
        }
    } catch (const std::runtime_error& error) {
        mBoard.violation("sh", line + ": " + error.what());
        print(2, std::string("sh: ") + error.what() + "\n");
        exitCode = kFailed;
    }
    return waitStatus(exitCode);
}

int Shell::runCommand(const Command& command) {
    Streams streams;
    for (const Redirection& to : command.redirections) {
        const auto fd = static_cast<size_t>(to.fd);
        if (to.toStandardOutput) {
            streams.files[2] = streams.files[1];
            streams.inherited[2] = streams.inherited[1];
            continue;
        }
        if (const int error = open(to.path, to.fd != 0, to.append)) {
            print(2, (to.fd == 0 ? "sh: can't open " : "sh: can't create ") + to.path +
                         because(error));
            return kFailed;
        }
        streams.files.at(fd) = to.path;
    }
    if (command.argv.empty()) return 0;
    const ProgramResult result = runProgram(command.argv);
    int exitCode = result.exitCode;
    for (const int fd : {1, 2}) {
        const std::string& text = fd == 1 ? result.out : result.err;
        const auto& file = streams.files.at(static_cast<size_t>(fd));
        if (text.empty()) continue;
        if (!file) {
            print(streams.inherited.at(static_cast<size_t>(fd)), text);
        } else if (const int error = deliver(*file, text)) {
            print(2, command.argv[0] + ": write" + because(error));
            exitCode = kFailed;
        }
    }
    return exitCode;
}

ProgramResult Shell::runProgram(const std::vector<std::string>& argv) {
    const auto found = mPrograms.find(argv[0]);
    if (found != mPrograms.end()) return Program(found->second)(argv);
    return {kNotFound, "", "sh: " + argv[0] + ": inaccessible or not found\n"};
}

// Returns 0, or the errno that prevents opening the file. Opening to write without `append` empties
// the file.
int Shell::open(const std::string& path, bool toWrite, bool append) {
    if (path == "/dev/null") return 0;
    if (mBoard.power.isCut()) return EIO;
    if (const auto fault = mBoard.faults.take(Call::kOpen, path)) return fault->error;
    if (mSysfs.exists(path)) return mSysfs.refusal(path, !toWrite, toWrite);
    const auto use = toWrite ? Probes::Use::kCreate : Probes::Use::kRead;
    if (const int error = mProbes.refusal(path, use)) return error;
    std::string content;
    const int error = mBoard.readFile(path, &content);
    if (!toWrite || error == EISDIR || (append && error == 0)) return error;
    return mBoard.replaceFile(path, "");
}

int Shell::deliver(const std::string& path, const std::string& text) {
    if (path == "/dev/null") return 0;
    if (const auto fault = mBoard.faults.take(Call::kWrite, path)) return fault->error;
    if (const auto handle = mSysfs.open(path)) {
        return static_cast<int>(-std::min<ssize_t>(0, handle->write(text.data(), text.size())));
    }
    std::string content;
    if (const int error = mBoard.readFile(path, &content)) return error;
    return mBoard.replaceFile(path, content + text);
}

void Shell::print(int fd, const std::string& text) {
    if (mBoard.power.isCut()) return;
    if (fd == 1) fflush(stdout);  // text that the program wrote before comes first
    if (fd == 2) mBoard.trace.add(EventKind::kNote, "sh", text);
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = real().write(fd, text.data() + done, text.size() - done);
        if (count <= 0) return;
        done += static_cast<size_t>(count);
    }
}

int Shell::readFile(const std::string& path, std::string* text) {
    if (const int error = open(path, false, false)) return error;
    if (const auto fault = mBoard.faults.take(Call::kRead, path)) return fault->error;
    if (const auto handle = mSysfs.open(path)) {
        std::array<char, 4096> page{};
        const ssize_t got = handle->read(page.data(), page.size());
        if (got > 0) text->append(page.data(), static_cast<size_t>(got));
        return static_cast<int>(-std::min<ssize_t>(0, got));
    }
    return mBoard.readFile(path, text);
}

ProgramResult Shell::cat(const std::vector<std::string>& argv) {
    ProgramResult result;
    for (size_t i = 1; i < argv.size(); ++i) {
        const int error = readFile(argv[i], &result.out);
        if (error == 0) continue;
        result.err += "cat: " + argv[i] + because(error);
        result.exitCode = kFailed;
    }
    return result;
}

}  // namespace quil::board
