#include "tests/torture/program_run.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>
#include <utility>

namespace quil::torture {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kCannotStart = 127;
constexpr milliseconds kHoldsAtMost{1000};

class Descriptor {
  public:
    explicit Descriptor(int number = -1) : mNumber(number) {}
    Descriptor(Descriptor&& other) noexcept : mNumber(std::exchange(other.mNumber, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(mNumber, other.mNumber);
        return *this;
    }
    ~Descriptor() {
        if (mNumber >= 0) close(mNumber);
    }
    int get() const { return mNumber; }

  private:
    int mNumber;
};

int checked(int result, const std::string& what) {
    if (result >= 0) return result;
    throw std::runtime_error(what + ": " + strerror(errno));
}

std::vector<char*> pointersTo(const std::vector<std::string>& words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

// What the child needs, made before the fork: behind it, only system calls are safe.
struct Plan {
    explicit Plan(const Start& start);

    std::vector<char*> words, environment;
    std::array<Descriptor, 3> streams;
    Descriptor terminal, terminalsOther;  // ours, the child's
    Descriptor calls, callsOther;         // a socket pair
};

Descriptor opened(Stream stream, int flags, const std::filesystem::path& file) {
    const auto open = [flags](const std::string& path) {
        return Descriptor(checked(::open(path.c_str(), flags | O_CLOEXEC, 0666), path));
    };
    if (stream == Stream::kFile) return open(file);
    if (stream == Stream::kNull) return open("/dev/null");
    if (stream == Stream::kFull) return open("/dev/full");
    if (stream != Stream::kHungUp) return Descriptor();
    std::array<int, 2> pipe{};
    checked(pipe2(pipe.data(), O_CLOEXEC), "pipe");
    close(pipe[0]);
    return Descriptor(pipe[1]);
}

Plan::Plan(const Start& start)
    : words(pointersTo(start.words)), environment(pointersTo(start.environment)) {
    constexpr int kWriting = O_WRONLY | O_CREAT | O_TRUNC;
    streams = {opened(start.in, O_RDONLY, {}), opened(start.out, kWriting, start.outFile),
               opened(start.err, kWriting, start.errFile)};
    if (start.out == Stream::kTerminal) {
        winsize size{24, static_cast<unsigned short>(start.columns), 0, 0};
        int ours = -1, theirs = -1;
        checked(openpty(&ours, &theirs, nullptr, nullptr, &size), "a terminal");
        fcntl(ours, F_SETFD, FD_CLOEXEC);
        fcntl(theirs, F_SETFD, FD_CLOEXEC);
        terminal = Descriptor(ours);
        terminalsOther = Descriptor(theirs);
    }
    if (!start.policy) return;
    std::array<int, 2> sockets{};
    checked(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()), "sockets");
    calls = Descriptor(sockets[0]);
    callsOther = Descriptor(sockets[1]);
}

void placeStreams(const Plan& plan) {
    for (int number = 0; number < 3; ++number) {
        const int given = plan.streams.at(static_cast<size_t>(number)).get();
        const int terminal = plan.terminalsOther.get();
        if (terminal >= 0) {
            dup2(terminal, number);
        } else if (given >= 0) {
            dup2(given, number);
        } else {
            close(number);
        }
    }
}

[[noreturn]] void becomeProgram(const Start& start, const Plan& plan) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (start.ownSession || plan.terminal.get() >= 0) setsid();
    if (plan.terminal.get() >= 0) ioctl(plan.terminalsOther.get(), TIOCSCTTY, 0);
    // A shell starts a background job with SIGINT ignored, which the program would inherit.
    for (const int caught : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) signal(caught, SIG_DFL);
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    if (chdir(start.folder.c_str()) != 0) _exit(kCannotStart);
    placeStreams(plan);
    if (plan.callsOther.get() >= 0 && !offerCalls(plan.callsOther.get())) _exit(kCannotStart);
    execve(plan.words.front(), plan.words.data(), plan.environment.data());
    _exit(kCannotStart);
}

void appendFrom(int terminal, std::string& text) {
    std::array<char, 4096> chunk{};
    const ssize_t n = read(terminal, chunk.data(), chunk.size());
    if (n > 0) text.append(chunk.data(), static_cast<size_t>(n));
}

// A child under way, until it has ended.
class Child {
  public:
    Child(const Start& start, Plan& plan)
        : mStart(start), mBegan(Clock::now()), mPid(fork()), mTerminal(plan.terminal.get()) {
        if (mPid == 0) becomeProgram(start, plan);
        if (mPid < 0) throw std::runtime_error(std::string("fork: ") + strerror(errno));
        mEnd =
            Descriptor(checked(static_cast<int>(syscall(SYS_pidfd_open, mPid, 0)), "pidfd_open"));
        plan.terminalsOther = Descriptor();
        plan.callsOther = Descriptor();
        if (start.policy) mCalls = Descriptor(checked(takeOffer(plan.calls.get()), "seccomp"));
    }

    Ended waitForEnd() {
        while (!mGone) step();
        int status = 0;
        waitpid(mPid, &status, 0);
        mEnded.took = std::chrono::duration_cast<milliseconds>(Clock::now() - mBegan);
        if (WIFSIGNALED(status)) mEnded.signal = WTERMSIG(status);
        if (WIFEXITED(status)) mEnded.code = WEXITSTATUS(status);
        return mEnded;
    }

  private:
    // Waits for what comes first: a call, output, the end, or the time of a signal.
    void step() {
        std::array<pollfd, 3> sources = {
            {{mEnd.get(), POLLIN, 0}, {mCalls.get(), POLLIN, 0}, {mTerminal, POLLIN, 0}}};
        poll(sources.data(), sources.size(), static_cast<int>(untilNext().count()));
        if ((sources[1].revents & POLLIN) != 0) {
            decide();
        } else if ((sources[2].revents & POLLIN) != 0) {
            appendFrom(mTerminal, mEnded.terminal);
        } else if ((sources[0].revents & POLLIN) != 0) {
            mGone = true;
        }
        sendWhatIsDue();
    }

    void decide() {
        const auto waiting = nextCall(mCalls.get());
        if (!waiting) return;
        const Answer answer = mStart.policy(mPid, waiting->call);
        if (answer.isHeld) {
            mHeld = waiting->id;
            mHeldUntil = Clock::now() + kHoldsAtMost;
            return;
        }
        if (waiting->call.effect == Effect::kAwaits) release();
        answerCall(mCalls.get(), waiting->id, answer.error);
    }
    void release() {
        if (mHeld) answerCall(mCalls.get(), *mHeld, 0);
        mHeld.reset();
    }

    // The time that a signal has left, and no more than the bound's.
    milliseconds untilNext() const {
        auto next = mBegan + mStart.bound;
        if (mSignalAt) next = std::min(next, *mSignalAt);
        if (mHeld) next = std::min(next, mHeldUntil);
        const auto left = std::chrono::duration_cast<milliseconds>(next - Clock::now());
        return std::max(left, milliseconds(0)) + milliseconds(1);
    }
    void sendWhatIsDue() {
        const auto now = Clock::now();
        if (mHeld && now >= mHeldUntil) release();
        if (mSignalToCome && !mSignalAt && mStart.signalAllowed()) {
            mSignalAt = now + mStart.signalAfter;
        }
        if (mSignalToCome && mSignalAt && now >= *mSignalAt) {
            mSignalToCome = false;
            mSignalAt.reset();
            if (mStart.signalAllowed()) {
                kill(mPid, mStart.signal);
                mStart.signalled();
            }
        }
        if (mEnded.timedOut || now < mBegan + mStart.bound) return;
        mEnded.timedOut = true;
        kill(mPid, SIGKILL);
    }

    const Start& mStart;
    const Clock::time_point mBegan;
    const pid_t mPid;
    const int mTerminal;
    Descriptor mEnd, mCalls;
    bool mSignalToCome = mStart.signal != 0, mGone = false;
    std::optional<Clock::time_point> mSignalAt;
    std::optional<uint64_t> mHeld;
    Clock::time_point mHeldUntil;
    Ended mEnded;
};

}  // namespace

Ended run(const Start& start) {
    Plan plan(start);
    return Child(start, plan).waitForEnd();
}

}  // namespace quil::torture
