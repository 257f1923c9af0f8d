#include "tests/swarm/child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>
#include <vector>

namespace quil::swarm {
namespace {

void writeLine(int pipe, const std::string& line) {
    const std::string text = line + "\n";
    for (size_t done = 0; done < text.size();) {
        const ssize_t count = write(pipe, text.data() + done, text.size() - done);
        if (count <= 0) _exit(1);
        done += static_cast<size_t>(count);
    }
}

[[noreturn]] void live(int pipe, const std::function<void(const Child::Tell&)>& work) {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDOUT_FILENO);
    if (getenv("QUIL_SWARM_LOUD") == nullptr) dup2(nowhere, STDERR_FILENO);
    close(nowhere);
    work([pipe](const std::string& line) { writeLine(pipe, line); });
    exit(0);
}

}  // namespace

Child::Child(const std::function<void(const Tell&)>& work) {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    mPid = fork();
    if (mPid < 0) throw std::runtime_error("no process");
    if (mPid == 0) {
        close(ends[0]);
        live(ends[1], work);
    }
    close(ends[1]);
    mPipe = ends[0];
}

Child::~Child() { end(); }

std::optional<std::string> Child::line() {
    const size_t size = mHeard.find('\n');
    if (size == std::string::npos) return std::nullopt;
    std::string first = mHeard.substr(0, size);
    mHeard.erase(0, size + 1);
    return first;
}

void Child::read() {
    std::array<char, 65536> piece;
    const ssize_t count = ::read(mPipe, piece.data(), piece.size());
    mSilence = {};
    if (count > 0) {
        mHeard.append(piece.data(), static_cast<size_t>(count));
    } else {
        close(std::exchange(mPipe, -1));
    }
}

std::string Child::end() {
    if (mPid < 0) return mEnd;
    if (mPipe >= 0) {
        kill(mPid, SIGKILL);
        close(std::exchange(mPipe, -1));
    }
    int status = 0;
    waitpid(std::exchange(mPid, -1), &status, 0);
    if (WIFSIGNALED(status)) return mEnd = "signal " + std::to_string(WTERMSIG(status));
    if (WEXITSTATUS(status) != 0) mEnd = "exit code " + std::to_string(WEXITSTATUS(status));
    return mEnd;
}

void Child::waitForAny(std::span<Child* const> children) {
    using std::chrono::steady_clock;
    constexpr std::chrono::seconds kMost{1};
    const auto start = steady_clock::now();
    std::vector<pollfd> sources;
    for (const Child* child : children) sources.push_back({child->mPipe, POLLIN, 0});
    const int found = poll(sources.data(), sources.size(), 1000);
    const auto waited = std::min<steady_clock::duration>(steady_clock::now() - start, kMost);
    for (Child* child : children) child->mSilence += waited;
    if (found <= 0) return;
    for (size_t i = 0; i < sources.size(); ++i) {
        if (sources[i].revents != 0) children[i]->read();
    }
}

}  // namespace quil::swarm
