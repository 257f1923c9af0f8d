// A process of its own, in which worlds run: whatever ends it ends nothing else.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <span>
#include <string>

namespace quil::swarm {

class Child {
  public:
    using Tell = std::function<void(const std::string& line)>;

    // Forks; the child does the work, whose output nobody sees but what it tells, and exits. The
    // calling process must have no other thread.
    explicit Child(const std::function<void(const Tell&)>& work);
    ~Child();  // ends it
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // A line that it told, if there is one by now.
    std::optional<std::string> line();
    bool isOver() const { return mPipe < 0; }
    // Since it told something. Of a wait no more than a second counts: when all of this was stopped
    // for a while, the child was no more at work than who waits for it.
    std::chrono::steady_clock::duration silence() const { return mSilence; }
    // Ends it if it still runs. "" if it exited with 0, or how else it ended.
    std::string end();

    // Waits until one of them tells something or ends, for at most a second.
    static void waitForAny(std::span<Child* const> children);

  private:
    void read();

    pid_t mPid = -1;
    int mPipe = -1;
    std::string mHeard, mEnd;
    std::chrono::steady_clock::duration mSilence{0};
};

}  // namespace quil::swarm
