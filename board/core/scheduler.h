// Board time and the threads that live in it.
//
// One attached thread runs at a time. Which one goes next, and whether it has to give its turn up
// where it would not block, the schedule decides (schedule.h), so that a run with the same seed is
// the same. When all threads wait, the clock jumps to the next timer. In real time the attached
// threads wait in the same way but run freely, and a thread of the scheduler's own fires the timers
// when they are due.
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

// In real time: when who waits looks again at descriptors that the board hears nothing of.
struct Look {
    std::optional<Nanos> at = {};
    bool isOutside = false;  // another program may be at the other end
};

// What happens when the threads wait for each other.
struct Standstill {
    Nanos after = std::chrono::seconds(10);     // in real time; in board time it is certain at once
    Nanos lockKept = std::chrono::seconds(60);  // a slow disk is no standstill
    // Gets the report of who waits for what, and should end the program. With none, or when it
    // returns, the report goes to standard error and the program is aborted.
    std::function<void(const std::string& report)> tell = {};
};

struct BoardThread {
    using TimerId = std::pair<Nanos, uint64_t>;

    Scheduler* scheduler = nullptr;
    int number = 0, kernelThread = 0;
    uint64_t priority = 0;
    bool attached = false;  // lives in board time
    bool arrived = true;    // false: it has started but not yet waited for its first turn
    bool queued = false, parked = false, timedOut = false, finished = false;
    const char* waitsFor = "";
    const void* object = nullptr;
    std::optional<TimerId> deadline;
    bool onWallClock = false;  // the deadline is a time of the real-time clock
    bool waitsForever = false;
    Look look = {};
    Gate gate;
    void* (*routine)(void*) = nullptr;  // what a child runs
    void* argument = nullptr;
};

class Scheduler {
  public:
    using TimerId = BoardThread::TimerId;

    // Attaches the calling thread. The board's time is the workstation's, so many times as fast; 0:
    // the clock jumps. A cut of the power that the trace is to make comes before the
    // next timer; the report of a standstill has the trace's last events.
    void powerOn(int speed, Trace&, const Schedule& = {}, Standstill = {});
    void powerOff();   // wakes all threads that still wait
    void powerLost();  // drops all timers and wakes all threads; no wait lasts any more
    // Without power only a thread that looks at the clock until it is late makes it go on.
    void passWithoutPower(Nanos duration);
    Nanos lastPowered() const;  // now, or when the power was lost
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
    std::optional<Nanos> nextTimer() const;

    // Waits for a wake of `object` or for the deadline; false: the deadline came first. The board's
    // lock is given up meanwhile, at all its levels. It also ends, with false, at `look`.
    bool park(const char* what, const void* object, std::optional<Nanos> deadline = {},
              const Look& look = {});
    // The same with a deadline on the real-time clock, which moves when that clock is set.
    bool parkUntilWall(const char* what, const void* object, Nanos wallDeadline);
    void stepWallClock(Nanos by);
    bool wakeOne(const void* object);
    void wakeAll(const void* object);
    void sleepUntil(Nanos when, const char* what);
    void sleepFor(Nanos duration, const char* what) { sleepUntil(now() + duration, what); }
    bool anyoneParked() const { return !mParked.empty(); }
    // In real time the clock thread looks again at what is due. From any thread, without the lock.
    void wakeClock() { mClockWake.open(); }

    // Threads.
    BoardThread* self();     // the calling thread; one from outside is not attached
    static bool attached();  // the calling thread lives in board time
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
    std::string report(const std::string& what) const;
    [[noreturn]] void tellAndAbort(const std::string& report) const;
    [[noreturn]] void deadlock();
    void lockOrReport();
    bool standsStill() const;
    void watchForStandstill();
    int64_t clockPause() const;
    void startClockThread();
    void stopClockThread();
    void clockLoop();
    static void* clockThread(void* self);

    Schedule mSchedule;
    Trace* mTrace = nullptr;  // null without power
    Standstill mStandstill;
    std::optional<Nanos> mStillSince;
    uint64_t mActivity = 0, mActivitySeen = 0;  // waits that were no mere looks
    bool mRealtime = false, mOn = false, mLost = false, mDispatching = false;
    Nanos mLostAt{0};
    std::atomic<Nanos> mVirtualNow{Nanos(0)}, mWallAhead{Nanos(0)};
    int64_t mRealStart = 0, mSpeed = 1;
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
