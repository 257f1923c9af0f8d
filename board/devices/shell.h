// The shell behind system(): simple commands, and the programs that are installed.
//
// It reads words with '...', "..." and \x, the redirections >, >>, < and 2>, 2>>, 2>&1, and the
// operators ; && ||, as a POSIX shell does, and prints the messages of Android's shell. What it
// does not know ($, |, &, globs) is a violation and a syntax error. Every path is one of the
// board's file system, also a relative one: a line does not reach the workstation's files.
//
// Every line is a kShell event. Faults: Call::kSystem by the whole line (an error: system() fails
// with it; exitCode, signal: nothing is done and the shell ends so; lostSilently: nothing is done
// and the exit code is 0), and Call::kOpen, kWrite and kRead by the path of a file that a line
// writes or reads.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "board/core/services.h"
#include "board/devices/probes.h"
#include "board/devices/sysfs.h"

namespace quil::board {

struct ProgramResult {
    int exitCode = 0;
    std::string out = {};  // standard output
    std::string err = {};  // standard error
};

// Exit codes.
inline constexpr int kFailed = 1, kNotFound = 127;

// The result of a program that fails with one line on standard error.
inline ProgramResult failure(const std::string& line) { return {kFailed, "", line + "\n"}; }

// What a program does, with the board's lock held; argv[0] is its name. To take its time it lets
// board time go on (Scheduler::sleepFor, BoardServices::spendDeviceTime).
using Program = std::function<ProgramResult(const std::vector<std::string>& argv)>;

class Shell {
  public:
    Shell(BoardServices&, Sysfs&, const Probes&);
    ~Shell();
    Shell(const Shell&) = delete;
    Shell& operator=(const Shell&) = delete;

    // `name` is the first word of a command: "ifconfig", or a whole path. echo, cat, sleep, true,
    // false and : are there from the start.
    void add(const std::string& name, Program);
    void remove(const std::string& name);

    // Runs a line and returns what system() does: the wait status (exit code << 8), or -1 with
    // errno set.
    int run(const std::string& line);

    struct Redirection {
        int fd;  // 0, 1 or 2
        bool append;
        bool toStandardOutput;  // 2>&1
        std::string path;
    };
    struct Command {
        std::vector<std::string> argv;
        std::vector<Redirection> redirections;
        std::string before;  // the operator before it: "", ";", "&&" or "||"
    };

  private:
    struct Streams;
    int runCommand(const Command&);
    ProgramResult runProgram(const std::vector<std::string>& argv);
    int open(const std::string& path, bool toWrite, bool append);
    int deliver(const std::string& path, const std::string& text);
    void print(int fd, const std::string& text);
    ProgramResult sleepFor(const std::vector<std::string>& argv);
    ProgramResult cat(const std::vector<std::string>& argv);
    int readFile(const std::string& path, std::string* text);

    BoardServices& mBoard;
    Sysfs& mSysfs;
    const Probes& mProbes;
    std::map<std::string, Program> mPrograms;
};

// The commands of a line in order. Throws std::runtime_error with the shell's message when the
// board's shell does not understand the line.
std::vector<Shell::Command> parseShellLine(std::string_view line);

}  // namespace quil::board
