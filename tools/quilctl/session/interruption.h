// Signals that ask the program to end: an interrupt (Ctrl-C), a termination, a hang-up. The first
// one stops what runs as a power cut does, so that the command comes to its end and says what is
// half done. A second one ends the program at once.
#pragma once

#include <filesystem>
#include <functional>
#include <streambuf>
#include <string>

#include "tools/quilctl/output/result.h"

namespace quil::tools {

// Waits for the signals on a thread of its own, as long as the program runs. Called before any
// other thread starts. A signal that the caller of the program has turned off (nohup) stays so.
void watchForInterruption();

// The signal that has asked the program to end; 0: none.
int interruption();
void interrupt(int signal);  // what a signal does
void forgetInterruption();   // before another command in this process

// Waits until the descriptor can be read or its other end is gone. -1: without a limit.
enum class Readiness { kReady, kNothing, kInterrupted };
Readiness waitToRead(int descriptor, int timeoutMs = -1);

ExitCode exitCodeOf(int signal);
const char* wordFor(int signal);  // "interrupted"

// Calls `stop` once when the program is asked to end, also if that was before. It is called on
// another thread, in the middle of anything: it must neither wait nor lock.
class StopsAtInterruption {
  public:
    explicit StopsAtInterruption(std::function<void()> stop);
    ~StopsAtInterruption();
    StopsAtInterruption(const StopsAtInterruption&) = delete;
    StopsAtInterruption& operator=(const StopsAtInterruption&) = delete;

  private:
    const std::function<void()> mStop;
};

// A file or directory that is removed if the program ends at once while this lives.
class Leftover {
  public:
    explicit Leftover(std::filesystem::path path);
    ~Leftover();
    Leftover(const Leftover&) = delete;
    Leftover& operator=(const Leftover&) = delete;

  private:
    const std::filesystem::path mPath;
};
void removeLeftovers();
// The program cannot come to its end: says why on the error stream, and leaves nothing behind.
[[noreturn]] void endAtOnce(ExitCode code, const std::string& why);

// A descriptor to read from, until the program is asked to end: then reading throws a Failure.
class InterruptibleInput : public std::streambuf {
  public:
    explicit InterruptibleInput(int descriptor) : mDescriptor(descriptor) {}

  protected:
    int_type underflow() override;

  private:
    const int mDescriptor;
    char mBytes[4096] = {};
};

}  // namespace quil::tools
