#include "board/core/scheduler.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

#include <array>
#include <iterator>
#include <utility>

#include "board/core/real_calls.h"

namespace quil::board {
namespace {

thread_local BoardThread* t_self = nullptr;

}  // namespace

void Scheduler::powerOn(int speed, Trace& trace, const Schedule& schedule, Standstill standstill) {
    mTrace = &trace;
    mRealtime = speed > 0;
    mSpeed = mRealtime ? speed : 1;
    mSchedule = mRealtime ? Schedule() : schedule;
    mStandstill = std::move(standstill);
    mStillSince.reset();
    mOn = true;
    mLost = false;
    mVirtualNow = Nanos(0);
    mWallAhead = Nanos(0);
    mRealStart = realNanos();
    mSequence = 0;
    mThreads = 0;
    mAll.push_back(std::make_shared<BoardThread>());
    t_self = mAll.back().get();
    t_self->scheduler = this;
    t_self->attached = true;
    t_self->number = mThreads++;
    t_self->priority = mSchedule.priorityOfANewThread();
    t_self->kernelThread = kernelThread();
    mRunning = mRealtime ? nullptr : t_self;
    if (mRealtime) startClockThread();
}

void Scheduler::powerOff() {
    {
        Guard guard(boardLock());
        mOn = false;
        mTrace = nullptr;
        mTimers.clear();
        for (BoardThread* thread : mParked) thread->gate.open();
        for (BoardThread* thread : mRunQueue) thread->gate.open();
        mParked.clear();
        mRunQueue.clear();
        mRunning = nullptr;
        for (auto& thread : mAll) {
            thread->attached = false;
            // The calling thread gets a new one when it comes back.
            if (!thread->finished && thread.get() != t_self) mOutsiders.push_back(thread);
        }
        mAll.clear();
        mByHandle.clear();
    }
    if (mRealtime) stopClockThread();
    t_self = nullptr;
}

void Scheduler::powerLost() {
    mLost = true;
    mLostAt = now();
    mTimers.clear();
    while (!mParked.empty()) {
        mParked.front()->timedOut = true;
        makeRunnable(mParked.front());
    }
}

Nanos Scheduler::now() const {
    return mRealtime ? Nanos((realNanos() - mRealStart) * mSpeed) : mVirtualNow.load();
}

Scheduler::TimerId Scheduler::at(Nanos when, std::function<void()> action) {
    const TimerId id{std::max(when, now()), mSequence++};
    if (mLost) return id;
    auto place = mTimers.end();
    while (place != mTimers.begin() && std::prev(place)->first < id) --place;
    mTimers.emplace(place, id, std::move(action));
    if (mRealtime) {
        mClockWake.open();
    } else if (mRunning == nullptr) {
        dispatch();
    }
    return id;
}

void Scheduler::cancel(const TimerId& id) {
    std::erase_if(mTimers, [&id](const auto& timer) { return timer.first == id; });
}

std::optional<Nanos> Scheduler::nextTimer() const {
    if (mTimers.empty()) return std::nullopt;
    return mTimers.back().first.first;
}

BoardThread* Scheduler::self() {
    if (t_self == nullptr) {
        mOutsiders.push_back(std::make_shared<BoardThread>());
        t_self = mOutsiders.back().get();
        t_self->number = mThreads++;
        t_self->kernelThread = kernelThread();
    }
    return t_self;
}

bool Scheduler::attached() { return t_self && t_self->attached; }

void Scheduler::passWithoutPower(Nanos duration) { mVirtualNow = mVirtualNow.load() + duration; }

Nanos Scheduler::lastPowered() const { return mLost ? mLostAt : now(); }

bool Scheduler::park(const char* what, const void* object, std::optional<Nanos> deadline,
                     const Look& look) {
    BoardThread* me = self();
    if (!mOn) return false;
    const auto until = !deadline || (look.at && *look.at < *deadline) ? look.at : deadline;
    const bool isAlone = mRunning == me && mRunQueue.empty() && !mLost && !mTrace->cutIsDue();
    const Nanos end = until ? std::max(*until, now()) : Nanos(0);
    if (isAlone && until && (mTimers.empty() || mTimers.back().first.first > end)) {
        // A pause of the only thread that runs, as most are: no timer, no gate, the same numbers.
        ++mSequence;
        mVirtualNow = end;
        mSchedule.choose(std::array{me});
        return false;
    }
    me->waitsFor = what;
    me->object = object;
    me->waitsForever = !deadline;
    me->look = look;
    me->timedOut = false;
    me->parked = true;
    mParked.push_back(me);
    if (!look.at) ++mActivity;
    if (mLost) {
        me->timedOut = true;
        makeRunnable(me);
    } else if (until) {
        me->deadline = wakeAt(*until, me);
    }
    if (mRunning == me) {
        mRunning = nullptr;
        dispatch();
    }
    const int held = boardLock().giveUp();
    me->gate.wait();
    boardLock().takeAgain(held);
    if (me->deadline && !me->timedOut) cancel(*me->deadline);
    me->deadline.reset();
    me->waitsFor = "";
    return !me->timedOut;
}

Scheduler::TimerId Scheduler::wakeAt(Nanos when, BoardThread* thread) {
    return at(when, [this, thread] {
        thread->timedOut = true;
        makeRunnable(thread);
    });
}

bool Scheduler::parkUntilWall(const char* what, const void* object, Nanos wallDeadline) {
    BoardThread* me = self();
    me->onWallClock = true;
    const bool woken = park(what, object, wallDeadline - mWallAhead.load());
    me->onWallClock = false;
    return woken;
}

void Scheduler::stepWallClock(Nanos by) {
    mWallAhead = mWallAhead.load() + by;
    for (BoardThread* thread : mParked) {
        if (!thread->onWallClock || !thread->deadline) continue;
        cancel(*thread->deadline);
        thread->deadline = wakeAt(thread->deadline->first - by, thread);
    }
}

void Scheduler::preempt() {
    BoardThread* me = t_self;
    if (!mSchedule.isDrawn() || me == nullptr || !me->attached) return;
    const int error = errno;
    boardLock().lock();
    const bool mayLose = mOn && mRunning == me && loseTurn(me);
    boardLock().unlock();
    if (mayLose) me->gate.wait();
    errno = error;
}

// True if the thread has to wait for its next turn, which it may have already.
bool Scheduler::loseTurn(BoardThread* me) {
    fireDue();
    mSchedule.step(&me->priority);
    if (mRunQueue.empty()) return false;
    me->queued = true;
    mRunQueue.push_back(me);
    mRunning = nullptr;
    dispatch();
    return true;
}

void Scheduler::makeRunnable(BoardThread* thread) {
    if (!thread->parked) return;
    thread->parked = false;
    mParked.remove(thread);
    if (!thread->attached || mRealtime) {
        thread->gate.open();
        return;
    }
    thread->queued = true;
    mRunQueue.push_back(thread);
    if (mRunning == nullptr) dispatch();
}

bool Scheduler::wakeOne(const void* object) {
    std::vector<BoardThread*> waiting;
    for (BoardThread* thread : mParked) {
        if (thread->object != object) continue;
        waiting.push_back(thread);
        if (!mSchedule.isDrawn()) break;
    }
    if (waiting.empty()) return false;
    makeRunnable(waiting[mSchedule.choose(waiting)]);
    return true;
}

void Scheduler::wakeAll(const void* object) {
    while (wakeOne(object)) {
    }
}

void Scheduler::sleepUntil(Nanos when, const char* what) {
    BoardThread* me = self();
    while (mOn && now() < when) {
        if (!park(what, me, when)) return;
    }
}

// Gives the turn to the next runnable thread. When there is none, fires timers until one of them
// makes a thread runnable.
void Scheduler::dispatch() {
    if (mDispatching || mRealtime) return;  // called by a timer's action, from the loop below
    mDispatching = true;
    while (mRunning == nullptr && mOn) {
        if (mSchedule.isDrawn()) fireDue();
        if (!mRunQueue.empty()) {
            // Without power no thread waits any more: each in turn, or one that looks for the end
            // of another keeps it from ending.
            const size_t chosen = mLost ? 0 : mSchedule.choose(mRunQueue);
            const auto next = mRunQueue.begin() + static_cast<ptrdiff_t>(chosen);
            mRunning = *next;
            mRunQueue.erase(next);
            mRunning->queued = false;
            mRunning->gate.open();
        } else if (!mTimers.empty()) {
            fireNext();
        } else {
            deadlock();
        }
    }
    mDispatching = false;
}

// Who waits until now is runnable as well.
void Scheduler::fireDue() {
    while (!mLost && !mTimers.empty() && mTimers.back().first.first <= now()) fireNext();
}

void Scheduler::fireNext() {
    mTrace->cutIfDue();
    if (mLost) return;
    const auto timer = std::move(mTimers.back());
    mTimers.pop_back();
    mVirtualNow = std::max(now(), timer.first.first);
    timer.second();
}

// Who waits for what, and what happened before.
std::string Scheduler::report(const std::string& what) const {
    char line[160];
    snprintf(line, sizeof(line), "at %.6f s: ", static_cast<double>(now().count()) / 1e9);
    std::string text = line + what + "\n";
    for (const BoardThread* thread : mParked) {
        snprintf(line, sizeof(line), "  thread %d waits for %s %p\n", thread->number,
                 thread->waitsFor, thread->object);
        text += line;
    }
    for (const auto& thread : mAll) {
        if (thread->finished || thread->parked) continue;
        text += "  thread " + std::to_string(thread->number) + " runs\n";
    }
    const auto events = mTrace->events();
    for (size_t i = events.size() > 10 ? events.size() - 10 : 0; i < events.size(); ++i) {
        text += "  " + toLine(events[i]) + "\n";
    }
    return text;
}

void Scheduler::tellAndAbort(const std::string& report) const {
    if (mStandstill.tell) mStandstill.tell(report);
    fputs(("board deadlock " + report).c_str(), stderr);
    fflush(stderr);
    abort();
}

void Scheduler::deadlock() { tellAndAbort(report("every thread waits and nothing is due")); }

std::shared_ptr<BoardThread> Scheduler::expectChild() {
    auto child = std::make_shared<BoardThread>();
    child->scheduler = this;
    child->number = mThreads++;
    child->priority = mSchedule.priorityOfANewThread();
    child->attached = true;
    mAll.push_back(child);
    if (mRealtime) return child;
    child->arrived = false;
    child->queued = true;
    mRunQueue.push_back(child.get());
    return child;
}

void Scheduler::childFailed(const std::shared_ptr<BoardThread>& child) {
    std::erase(mRunQueue, child.get());
    std::erase(mAll, child);
}

void Scheduler::started(const std::shared_ptr<BoardThread>& child, pthread_t handle) {
    mByHandle[handle] = child;
}

std::shared_ptr<BoardThread> Scheduler::find(pthread_t handle) {
    const auto found = mByHandle.find(handle);
    return found == mByHandle.end() ? nullptr : found->second;
}

void Scheduler::forget(pthread_t handle) {
    const auto found = mByHandle.find(handle);
    if (found == mByHandle.end()) return;
    std::erase(mAll, found->second);
    mByHandle.erase(found);
}

void Scheduler::begin(BoardThread* child, bool waitForTurn) {
    t_self = child;
    child->kernelThread = kernelThread();
    if (waitForTurn) arrive();
}

void Scheduler::arrive() {
    if (!t_self || t_self->arrived) return;
    t_self->arrived = true;
    t_self->gate.wait();
}

void Scheduler::end() {
    arrive();
    BoardThread* me = std::exchange(t_self, nullptr);
    Guard guard(boardLock());
    me->finished = true;
    if (!me->attached) return;
    Scheduler& scheduler = *me->scheduler;
    scheduler.wakeAll(me);
    if (scheduler.mRunning != me) return;
    scheduler.mRunning = nullptr;
    scheduler.dispatch();
}

void Scheduler::startClockThread() {
    mClockRuns = true;
    ::pthread_create(&mClock, nullptr, clockThread, this);
}

void Scheduler::stopClockThread() {
    {
        Guard guard(boardLock());
        mClockRuns = false;
    }
    mClockWake.open();
    ::pthread_join(mClock, nullptr);
}

void* Scheduler::clockThread(void* self) {
    static_cast<Scheduler*>(self)->clockLoop();
    return nullptr;
}

// A thread that keeps the board's lock stops the clock, and with it every time-out of the board.
void Scheduler::lockOrReport() {
    if (boardLock().lockFor(mStandstill.lockKept.count())) return;
    const int owner = boardLock().owner();
    std::string who = "a thread from outside";
    for (const auto& thread : mAll) {
        if (thread->kernelThread == owner) who = "thread " + std::to_string(thread->number);
    }
    boardLock().lockForALastLook();
    tellAndAbort(report(who + " keeps the board's lock"));
}

// True if all threads wait, none of them for a time or for the world outside, and no timer is ahead
// but their next looks at descriptors.
bool Scheduler::standsStill() const {
    size_t looks = 0;
    for (const auto& thread : mAll) {
        if (thread->finished) continue;
        if (!thread->parked || !thread->waitsForever || thread->look.isOutside) return false;
        if (thread->look.at) ++looks;
    }
    return mTimers.size() <= looks;
}

void Scheduler::watchForStandstill() {
    if (mLost || !standsStill() || std::exchange(mActivitySeen, mActivity) != mActivity) {
        mStillSince.reset();
    } else if (!mStillSince) {
        mStillSince = now();
    } else if (now() - *mStillSince >= mStandstill.after) {
        deadlock();
    }
}

// Of the workstation's time, until the next timer is due or the next look for a standstill.
int64_t Scheduler::clockPause() const {
    const Nanos look = mStandstill.after / 2;
    const Nanos pause = mTimers.empty() ? look : std::min(look, mTimers.back().first.first - now());
    return (pause.count() + mSpeed - 1) / mSpeed;
}

void Scheduler::clockLoop() {
    lockOrReport();
    while (mClockRuns) {
        if (mOn) mTrace->cutIfDue();
        if (mOn) watchForStandstill();
        const int64_t pause = clockPause();
        if (pause <= 0) {
            const auto timer = std::move(mTimers.back());
            mTimers.pop_back();
            timer.second();
            continue;
        }
        boardLock().unlock();
        mClockWake.waitFor(pause);
        lockOrReport();
    }
    boardLock().unlock();
}

}  // namespace quil::board
