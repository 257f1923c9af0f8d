// A program that runs beside the test, for signals and for standard streams that are not there.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdint.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <string>
#include <utility>

namespace quil::tests {

class StartedProgram {
  public:
    // Descriptors of the test; -1: the test's own input, and the pipe that the error stream is on.
    struct Streams {
        int in = -1, out = -1;
    };

    // A command line of the shell, which the program replaces.
    explicit StartedProgram(const std::string& command) : StartedProgram(command, Streams()) {}
    StartedProgram(const std::string& command, const Streams& streams) {
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC) != 0) return;
        mOutput = ends[0];
        start(command, {streams.in, streams.out < 0 ? ends[1] : streams.out}, ends[1]);
        close(ends[1]);
    }
    ~StartedProgram() {
        if (mPid > 0) end();
        if (mOutput >= 0) close(mOutput);
    }
    StartedProgram(const StartedProgram&) = delete;
    StartedProgram& operator=(const StartedProgram&) = delete;

    // Waits until the program has printed something.
    void waitForOutput() { takeOutput(); }
    void signal(int number) const { kill(mPid, number); }
    // False once a signal that the program blocks has been taken.
    bool hasPending(int number) const {
        std::ifstream status("/proc/" + std::to_string(mPid) + "/status");
        std::string word;
        while (status >> word && word != "ShdPnd:") {
        }
        uint64_t pending = 0;
        status >> std::hex >> pending;
        return (pending >> static_cast<unsigned>(number - 1) & 1U) != 0;
    }
    bool hasEnded() {
        if (mPid > 0 && waitpid(mPid, &mStatus, WNOHANG) == mPid) mPid = -1;
        return mPid <= 0;
    }
    // Waits for its end; as the shell numbers it: the exit code, or 128 and the signal.
    int end() {
        while (mOutput >= 0 && takeOutput()) {
        }
        if (mPid > 0) waitpid(std::exchange(mPid, -1), &mStatus, 0);
        return WIFEXITED(mStatus) ? WEXITSTATUS(mStatus) : 128 + WTERMSIG(mStatus);
    }
    bool diedOfASignal() const { return WIFSIGNALED(mStatus); }
    const std::string& output() const { return mText; }

  private:
    bool takeOutput() {
        std::array<char, 4096> piece{};
        const ssize_t count = read(mOutput, piece.data(), piece.size());
        if (count > 0) mText.append(piece.data(), static_cast<size_t>(count));
        return count > 0;
    }

    // With the signals as a program has them that is started in a terminal.
    void start(const std::string& command, const Streams& given, int errors) {
        posix_spawnattr_t how;
        posix_spawnattr_init(&how);
        sigset_t all;
        sigemptyset(&all);
        posix_spawnattr_setsigmask(&how, &all);
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) sigaddset(&all, number);
        posix_spawnattr_setsigdefault(&how, &all);
        posix_spawnattr_setflags(&how, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        posix_spawn_file_actions_t streams;
        posix_spawn_file_actions_init(&streams);
        if (given.in >= 0) posix_spawn_file_actions_adddup2(&streams, given.in, STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&streams, given.out, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&streams, errors, STDERR_FILENO);
        std::string line = "exec " + command;
        char shell[] = "/bin/sh", option[] = "-c";
        char* words[] = {shell, option, line.data(), nullptr};
        if (posix_spawn(&mPid, shell, &streams, &how, words, environ) != 0) mPid = -1;
        posix_spawn_file_actions_destroy(&streams);
        posix_spawnattr_destroy(&how);
    }

    int mOutput = -1;
    pid_t mPid = -1;
    int mStatus = 0;
    std::string mText;
};

}  // namespace quil::tests
