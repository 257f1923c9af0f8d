// The clients of one session: a thread for each.
#pragma once

#include <functional>
#include <set>
#include <thread>
#include <vector>

#include "tests/swarm/witness.h"
#include "tests/swarm/world.h"

namespace quil::swarm {

// What the MCU answers to that operation's request, and what a wakeUp from outside brings.
Bytes answerOf(const Operation&);
Bytes requestOf(const Operation&);
uint32_t mcuCommandOf(const Operation&);  // of its request, if that is for the MCU

class Clients {
  public:
    Clients(board::Board& board, Recorder& recorder) : mBoard(board), mRecorder(recorder) {}
    ~Clients() { wait(); }
    Clients(const Clients&) = delete;
    Clients& operator=(const Clients&) = delete;

    void start(const Session&, const android::sp<IQuilServiceManager>& service);
    void wait();  // until all have done what they do

  private:
    class Callback;
    using Service = android::sp<IQuilServiceManager>;

    void run(const Client&, const Service&);
    void perform(const Operation&, const Service&, std::vector<android::sp<Callback>>& own);
    void request(const Operation&, const Service&);
    void registered(const Operation&, const Service&, std::vector<android::sp<Callback>>& own);
    void debug(const Service&) const;
    // What a callback does: `own` is the registered one, null for that of a request.
    void react(const Operation&, const Service&, Callback* own);

    board::Board& mBoard;
    Recorder& mRecorder;
    std::vector<std::thread> mThreads;
};

}  // namespace quil::swarm
