// Board time and the threads that live in it.
//
// One attached thread runs at a time. It hands over only where it would block; whoever has waited
// for its turn longest goes next, so that a run is the same every time. When all of them wait, the
// clock jumps to the next timer. In real time the threads run as they like and timers fire when
// they are due.
#pragma once

#include <pthread.h>

#include <atomic>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "board/core/lock.h"
#include "board/core/trace.h"

namespace quil::board {

class Scheduler;

struct BoardThread {
    Scheduler* scheduler = nullptr;
    int number = 0;
    bool attached = false;  // takes turns
    bool arrived = true;    // false: it has been given turns that it has not come for yet
    bool queued = false, parked = false, timedOut = false, finished = false;
    const char* waitsFor = "";
    const void* object = nullptr;
    Gate gate;
    void* (*routine)(void*) = nullptr;  // what a child runs
    void* argument = nullptr;
};

class Scheduler {
  public:
    using TimerId = std::pair<Nanos, uint64_t>;

    // Attaches the calling thread. A cut of the power that the trace is to make comes before the
    // next timer; a deadlock prints the trace's last events.
    void powerOn(bool realtime, Trace&);
    void powerOff();   // lets go of whoever still waits
    void powerLost();  // time stands still: nothing is due any more, and nobody waits
    bool isOn() const { return on_; }
    bool realtime() const { return realtime_; }
    Nanos now() const;

    // All that follows is called with the board's lock held.
    TimerId at(Nanos when, std::function<void()> action);
    void cancel(const TimerId& id);

    // Waits until woken for `object`, or for the deadline: then false. Gives the board's lock up
    // meanwhile.
    bool park(const char* what, const void* object, std::optional<Nanos> deadline = {});
    bool wakeOne(const void* object);
    void wakeAll(const void* object);
    void sleepUntil(Nanos when, const char* what);
    void sleepFor(Nanos duration, const char* what) { sleepUntil(now() + duration, what); }
    bool anyoneParked() const { return !parked_.empty(); }

    // Threads.
    BoardThread* self();  // the calling thread; one outside board time gets a record without turns
    static bool attached();  // the calling thread takes turns
    std::shared_ptr<BoardThread> expectChild();
    void childFailed(const std::shared_ptr<BoardThread>&);
    void started(const std::shared_ptr<BoardThread>&, pthread_t);
    std::shared_ptr<BoardThread> find(pthread_t);
    void forget(pthread_t);
    // Takes no memory: a sanitizer may not know the thread yet.
    static void begin(BoardThread*, bool waitForTurn);
    static void end();
    // The first call of a thread that began without waiting for its turn. Called without the lock.
    static void arrive();

  private:
    void makeRunnable(BoardThread*);
    void dispatch();
    void fireNext();
    [[noreturn]] void deadlock();
    void startClockThread();
    void stopClockThread();
    void clockLoop();
    static void* clockThread(void* self);

    Trace* trace_ = nullptr;  // null without power
    bool realtime_ = false, on_ = false, lost_ = false, dispatching_ = false;
    std::atomic<Nanos> virtualNow_{Nanos(0)};
    int64_t realStart_ = 0;
    uint64_t sequence_ = 0;
    int threads_ = 0;
    // Sorted, soonest last. A vector serves: there are few at a time, and each byte on a line adds
    // and removes one.
    std::vector<std::pair<TimerId, std::function<void()>>> timers_;
    std::deque<BoardThread*> runQueue_;
    std::list<BoardThread*> parked_;
    BoardThread* running_ = nullptr;
    std::map<pthread_t, std::shared_ptr<BoardThread>> byHandle_;
    std::deque<std::shared_ptr<BoardThread>> all_;
    // Records of threads outside board time. Never freed: such a thread may come back at any time.
    std::deque<std::shared_ptr<BoardThread>> outsiders_;
    pthread_t clock_{};
    bool clockRuns_ = false;
    Gate clockWake_;
};

}  // namespace quil::board
