#include "tools/quilctl/session/interruption.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "board/core/real_calls.h"
#include "tools/quilctl/session/exclusive.h"

namespace quil::tools {
namespace {

struct SignalRow {
    int signal;
    ExitCode code;
    const char* word;
};
constexpr std::array<SignalRow, 3> kSignals = {{
    {SIGINT, kInterrupted, "interrupted"},
    {SIGTERM, kTerminated, "terminated"},
    {SIGHUP, kHungUp, "hung up"},
}};

const SignalRow& signalRow(int signal) {
    const auto* row = std::find_if(kSignals.begin(), kSignals.end(),
                                   [signal](const SignalRow& one) { return one.signal == signal; });
    return row == kSignals.end() ? kSignals.front() : *row;
}

// timeout(1) and service managers signal a program and then its group: one more signal within this
// time is the first one's echo, and ignored.
constexpr timespec kEcho{0, 500'000'000};
// How long a command may take to its end; then nothing but its end helps.
constexpr timespec kPatience{10, 0};

// Never destroyed: the thread that waits for signals outlives main.
struct State {
    Exclusive lock;  // of what follows
    std::atomic<int> signal{0};
    const std::function<void()>* stop = nullptr;
    std::vector<std::filesystem::path> leftovers;
    const int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);  // readable after an interruption
    const int errors = dup(STDERR_FILENO);                    // --quiet turns the other one away
};

State& state() {
    static State* state = new State;
    return *state;
}

using Locked = std::lock_guard<Exclusive>;

sigset_t watchedSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const SignalRow& row : kSignals) {
        struct sigaction now {};
        sigaction(row.signal, nullptr, &now);
        if (now.sa_handler != SIG_IGN) sigaddset(&set, row.signal);
    }
    return set;
}

// -1: there was none within `patience`.
int nextOf(const sigset_t& signals, const timespec& patience) {
    int signal = -1;
    do {
        signal = sigtimedwait(&signals, nullptr, &patience);
    } while (signal < 0 && errno == EINTR);
    return signal;
}

void waitForSignals(const sigset_t& signals) {
    int first = 0;
    while (sigwait(&signals, &first) != 0) {
    }
    interrupt(first);
    nextOf(signals, kEcho);
    const int second = nextOf(signals, kPatience);
    if (second < 0) {
        endAtOnce(exitCodeOf(first), std::string(wordFor(first)) + ", and not at an end " +
                                         std::to_string(kPatience.tv_sec) + " s later: ended");
    }
    removeLeftovers();
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    raise(second);
}

}  // namespace

void watchForInterruption() {
    state();
    const sigset_t signals = watchedSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread(waitForSignals, signals).detach();
    for (const SignalRow& row : kSignals) {  // what a second one does, once it is let through
        if (sigismember(&signals, row.signal) == 1) signal(row.signal, SIG_DFL);
    }
}

int interruption() { return state().signal; }

void interrupt(int signal) {
    const Locked locked(state().lock);
    State& now = state();
    if (now.signal != 0) return;
    now.signal = signal;
    const uint64_t once = 1;
    [[maybe_unused]] const auto told = board::real().write(now.wake, &once, sizeof(once));
    if (now.stop != nullptr) (*now.stop)();
}

void forgetInterruption() {
    const Locked locked(state().lock);
    uint64_t count = 0;
    state().signal = 0;
    [[maybe_unused]] const auto read = board::real().read(state().wake, &count, sizeof(count));
}

ExitCode exitCodeOf(int signal) { return signalRow(signal).code; }
const char* wordFor(int signal) { return signalRow(signal).word; }

StopsAtInterruption::StopsAtInterruption(std::function<void()> stop) : mStop(std::move(stop)) {
    const Locked locked(state().lock);
    state().stop = &mStop;
    if (state().signal != 0) mStop();
}

StopsAtInterruption::~StopsAtInterruption() {
    const Locked locked(state().lock);
    state().stop = nullptr;
}

Leftover::Leftover(std::filesystem::path path) : mPath(std::move(path)) {
    const Locked locked(state().lock);
    state().leftovers.push_back(mPath);
}

Leftover::~Leftover() {
    const Locked locked(state().lock);
    auto& all = state().leftovers;
    all.erase(std::find(all.begin(), all.end(), mPath));
}

void removeLeftovers() {
    const Locked locked(state().lock);
    std::error_code ignored;
    for (const auto& path : state().leftovers) std::filesystem::remove_all(path, ignored);
}

void endAtOnce(ExitCode code, const std::string& why) {
    const std::string text = "quilctl: " + why + (why.back() == '\n' ? "" : "\n");
    [[maybe_unused]] const auto told =
        board::real().write(state().errors, text.data(), text.size());
    removeLeftovers();
    _exit(code);
}

Readiness waitToRead(int descriptor, int timeoutMs) {
    pollfd sources[] = {{descriptor, POLLIN, 0}, {state().wake, POLLIN, 0}};
    int count = -1;
    do {
        count = board::real().poll(sources, 2, timeoutMs);
    } while (count < 0 && errno == EINTR);
    if (interruption() != 0) return Readiness::kInterrupted;
    return count == 0 ? Readiness::kNothing : Readiness::kReady;
}

InterruptibleInput::int_type InterruptibleInput::underflow() {
    if (waitToRead(mDescriptor) == Readiness::kInterrupted) {
        const int signal = interruption();
        throw Failure(exitCodeOf(signal), std::string(wordFor(signal)) +
                                              " while it waited for standard input: nothing done");
    }
    const ssize_t count = board::real().read(mDescriptor, mBytes, sizeof(mBytes));
    if (count < 0) {
        throw failureOf(kBadData, "standard input cannot be read", errno);
    }
    if (count == 0) return traits_type::eof();
    setg(mBytes, mBytes, mBytes + count);
    return traits_type::to_int_type(mBytes[0]);
}

}  // namespace quil::tools
