// Board time and the threads that live in it.
//
// One attached thread runs at a time. Which one goes next, and whether it has to give its turn up
// where it would not block, the schedule decides (schedule.h), so that a run with the same seed is
// the same. When all threads wait, the clock jumps to the next timer. In real time the threads run
// freely, and a thread of the scheduler's own fires the timers when they are due.
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
#include "board/core/schedule.h"
#include "board/core/trace.h"

namespace quil::board {

class Scheduler;

struct BoardThread {
    using TimerId = std::pair<Nanos, uint64_t>;

    Scheduler* scheduler = nullptr;
    int number = 0;
    uint64_t priority = 0;
    bool attached = false;  // takes turns
    bool arrived = true;    // false: it has started but not yet waited for its first turn
    bool queued = false, parked = false, timedOut = false, finished = false;
    const char* waitsFor = "";
    const void* object = nullptr;
    std::optional<TimerId> deadline;
    bool onWallClock = false;  // the deadline is a time of the real-time clock
    Gate gate;
    void* (*routine)(void*) = nullptr;  // what a child runs
    void* argument = nullptr;
};

class Scheduler {
  public:
    using TimerId = BoardThread::TimerId;

    // Attaches the calling thread. A cut of the power that the trace is to make comes before the
    // next timer; a deadlock prints the trace's last events.
    void powerOn(bool realtime, Trace&, const Schedule& = {});
    void powerOff();   // wakes all threads that still wait
    void powerLost();  // drops all timers and wakes all threads; no wait lasts any more
    bool isOn() const { return mOn; }
    bool realtime() const { return mRealtime; }
    Nanos now() const;
    // What the real-time clock shows, counted from what it showed at power-on.
    Nanos wallNow() const { return now() + mWallAhead.load(); }

    // The running thread may lose its turn here to another runnable one. Called without the board's
    // lock. Keeps errno.
    void preempt();

    // The functions from here to `Threads` are called with the board's lock held.
    TimerId at(Nanos when, std::function<void()> action);
    void cancel(const TimerId& id);

    // Waits for a wake of `object` or for the deadline; false: the deadline came first. The board's
    // lock is given up meanwhile, at all its levels.
    bool park(const char* what, const void* object, std::optional<Nanos> deadline = {});
    // The same with a deadline on the real-time clock, which moves when that clock is set.
    bool parkUntilWall(const char* what, const void* object, Nanos wallDeadline);
    void stepWallClock(Nanos by);
    bool wakeOne(const void* object);
    void wakeAll(const void* object);
    void sleepUntil(Nanos when, const char* what);
    void sleepFor(Nanos duration, const char* what) { sleepUntil(now() + duration, what); }
    bool anyoneParked() const { return !mParked.empty(); }

    // Threads.
    BoardThread* self();     // the calling thread; outside board time it takes no turns
    static bool attached();  // the calling thread takes turns
    std::shared_ptr<BoardThread> expectChild();
    void childFailed(const std::shared_ptr<BoardThread>&);
    void started(const std::shared_ptr<BoardThread>&, pthread_t);
    std::shared_ptr<BoardThread> find(pthread_t);
    void forget(pthread_t);
    // Allocates nothing: a sanitizer may not know the new thread yet.
    static void begin(BoardThread*, bool waitForTurn);
    static void end();
    // Waits for the first turn of a thread that began without; called at its first call of the
    // board, without the lock.
    static void arrive();

  private:
    TimerId wakeAt(Nanos when, BoardThread*);
    void makeRunnable(BoardThread*);
    bool loseTurn(BoardThread*);
    void dispatch();
    void fireDue();
    void fireNext();
    [[noreturn]] void deadlock();
    void startClockThread();
    void stopClockThread();
    void clockLoop();
    static void* clockThread(void* self);

    Schedule mSchedule;
    Trace* mTrace = nullptr;  // null without power
    bool mRealtime = false, mOn = false, mLost = false, mDispatching = false;
    std::atomic<Nanos> mVirtualNow{Nanos(0)}, mWallAhead{Nanos(0)};
    int64_t mRealStart = 0;
    uint64_t mSequence = 0;
    int mThreads = 0;
    // Sorted, soonest last. A vector serves: there are few at a time, and each byte on a line adds
    // and removes one.
    std::vector<std::pair<TimerId, std::function<void()>>> mTimers;
    std::deque<BoardThread*> mRunQueue;
    std::list<BoardThread*> mParked;
    BoardThread* mRunning = nullptr;
    std::map<pthread_t, std::shared_ptr<BoardThread>> mByHandle;
    std::deque<std::shared_ptr<BoardThread>> mAll;
    // Records of threads outside board time. Never freed: such a thread may come back at any time.
    std::deque<std::shared_ptr<BoardThread>> mOutsiders;
    pthread_t mClock{};
    bool mClockRuns = false;
    Gate mClockWake;
};

}  // namespace quil::board
