// One run of a program of which everything around it is chosen: its streams, its terminal, its
// system calls, and when it is interrupted.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/torture/system_calls.h"

namespace quil::torture {

enum class Stream {
    kFile,  // a file of the caller's
    kNull,  // /dev/null
    kClosed,
    kFull,      // /dev/full
    kHungUp,    // a pipe that nobody reads
    kTerminal,  // the run's own, for all three
};

// What is done with a call: it fails with an errno, or it happens; or it is held until the program
// has dealt with a signal that was sent.
struct Answer {
    int error = 0;
    bool isHeld = false;
};
using Policy = std::function<Answer(pid_t, const SystemCall&)>;

struct Start {
    std::vector<std::string> words;  // the program first
    std::vector<std::string> environment;
    std::filesystem::path folder;  // the current one
    Stream in = Stream::kNull, out = Stream::kFile, err = Stream::kFile;
    std::filesystem::path outFile, errFile;
    int columns = 80;         // of the terminal
    bool ownSession = false;  // without any terminal
    // Asked about each call, with the process; none: the calls are not looked at.
    Policy policy;
    // A signal to send, 0 for none: a time after it was first allowed.
    int signal = 0;
    std::function<bool()> signalAllowed;  // asked again when it is due
    std::function<void()> signalled;      // it has been sent
    std::chrono::milliseconds signalAfter{0};
    std::chrono::milliseconds bound{30000};  // then it is killed
};

struct Ended {
    bool timedOut = false;
    int signal = 0;  // that killed it
    int code = 0;
    std::string terminal;  // what it printed there
    std::chrono::milliseconds took{0};
};

// Throws std::runtime_error when the run cannot be started.
Ended run(const Start& start);

}  // namespace quil::torture
