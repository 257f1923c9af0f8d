#include "board/core/scheduler.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

#include <iterator>
#include <utility>

#include "board/core/real_calls.h"

namespace quil::board {
namespace {

thread_local BoardThread* t_self = nullptr;

int64_t realNanos() {
    timespec t{};
    real().clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1'000'000'000LL + t.tv_nsec;
}

}  // namespace

void Scheduler::powerOn(bool realtime, Trace& trace, const Schedule& schedule) {
    mTrace = &trace;
    mSchedule = realtime ? Schedule() : schedule;
    mRealtime = realtime;
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
    t_self->attached = !realtime;
    t_self->number = mThreads++;
    t_self->priority = mSchedule.priorityOfANewThread();
    mRunning = realtime ? nullptr : t_self;
    if (realtime) startClockThread();
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
            if (!thread->finished) mOutsiders.push_back(thread);
        }
        mAll.clear();
        mByHandle.clear();
    }
    if (mRealtime) stopClockThread();
    t_self = nullptr;
}

void Scheduler::powerLost() {
    mLost = true;
    mTimers.clear();
    while (!mParked.empty()) {
        mParked.front()->timedOut = true;
        makeRunnable(mParked.front());
    }
}

Nanos Scheduler::now() const {
    return mRealtime ? Nanos(realNanos() - mRealStart) : mVirtualNow.load();
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

BoardThread* Scheduler::self() {
    if (t_self == nullptr) {
        mOutsiders.push_back(std::make_shared<BoardThread>());
        t_self = mOutsiders.back().get();
    }
    return t_self;
}

bool Scheduler::attached() { return t_self && t_self->attached; }

bool Scheduler::park(const char* what, const void* object, std::optional<Nanos> deadline) {
    BoardThread* me = self();
    if (!mOn) return false;
    me->waitsFor = what;
    me->object = object;
    me->timedOut = false;
    me->parked = true;
    mParked.push_back(me);
    if (mLost) {
        me->timedOut = true;
        makeRunnable(me);
    } else if (deadline) {
        me->deadline = wakeAt(*deadline, me);
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
    if (!thread->attached) {
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
            const auto next =
                mRunQueue.begin() + static_cast<ptrdiff_t>(mSchedule.choose(mRunQueue));
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

void Scheduler::deadlock() {
    fprintf(stderr, "board deadlock at %.6f s: every thread waits and nothing is due\n",
            static_cast<double>(now().count()) / 1e9);
    for (const BoardThread* thread : mParked) {
        fprintf(stderr, "  thread %d waits for %s %p\n", thread->number, thread->waitsFor,
                thread->object);
    }
    const auto events = mTrace->events();
    for (size_t i = events.size() > 10 ? events.size() - 10 : 0; i < events.size(); ++i) {
        fprintf(stderr, "  %s\n", toLine(events[i]).c_str());
    }
    fflush(stderr);
    abort();
}

std::shared_ptr<BoardThread> Scheduler::expectChild() {
    auto child = std::make_shared<BoardThread>();
    child->scheduler = this;
    child->number = mThreads++;
    child->priority = mSchedule.priorityOfANewThread();
    child->attached = true;
    child->arrived = false;
    child->queued = true;
    mAll.push_back(child);
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

void Scheduler::clockLoop() {
    boardLock().lock();
    while (mClockRuns) {
        int64_t pause = -1;
        if (!mTimers.empty()) pause = (mTimers.back().first.first - now()).count();
        if (!mTimers.empty() && pause <= 0) {
            const auto timer = std::move(mTimers.back());
            mTimers.pop_back();
            timer.second();
            continue;
        }
        boardLock().unlock();
        mClockWake.waitFor(pause);
        boardLock().lock();
    }
    boardLock().unlock();
}

}  // namespace quil::board
