#include "board/core/scheduler.h"

#include <cstdio>
#include <cstdlib>
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

void Scheduler::powerOn(bool realtime, Trace& trace) {
    trace_ = &trace;
    realtime_ = realtime;
    on_ = true;
    lost_ = false;
    virtualNow_ = Nanos(0);
    realStart_ = realNanos();
    sequence_ = 0;
    threads_ = 0;
    all_.push_back(std::make_shared<BoardThread>());
    t_self = all_.back().get();
    t_self->scheduler = this;
    t_self->attached = !realtime;
    t_self->number = threads_++;
    running_ = realtime ? nullptr : t_self;
    if (realtime) startClockThread();
}

void Scheduler::powerOff() {
    {
        Guard guard(boardLock());
        on_ = false;
        trace_ = nullptr;
        timers_.clear();
        for (BoardThread* thread : parked_) thread->gate.open();
        for (BoardThread* thread : runQueue_) thread->gate.open();
        parked_.clear();
        runQueue_.clear();
        running_ = nullptr;
        for (auto& thread : all_) {
            thread->attached = false;
            if (!thread->finished) outsiders_.push_back(thread);
        }
        all_.clear();
        byHandle_.clear();
    }
    if (realtime_) stopClockThread();
    t_self = nullptr;
}

void Scheduler::powerLost() {
    lost_ = true;
    timers_.clear();
    while (!parked_.empty()) {
        parked_.front()->timedOut = true;
        makeRunnable(parked_.front());
    }
}

Nanos Scheduler::now() const {
    return realtime_ ? Nanos(realNanos() - realStart_) : virtualNow_.load();
}

Scheduler::TimerId Scheduler::at(Nanos when, std::function<void()> action) {
    const TimerId id{std::max(when, now()), sequence_++};
    if (lost_) return id;
    auto place = timers_.end();
    while (place != timers_.begin() && std::prev(place)->first < id) --place;
    timers_.emplace(place, id, std::move(action));
    if (realtime_) {
        clockWake_.open();
    } else if (running_ == nullptr) {
        dispatch();
    }
    return id;
}

void Scheduler::cancel(const TimerId& id) {
    std::erase_if(timers_, [&id](const auto& timer) { return timer.first == id; });
}

BoardThread* Scheduler::self() {
    if (t_self == nullptr) {
        outsiders_.push_back(std::make_shared<BoardThread>());
        t_self = outsiders_.back().get();
    }
    return t_self;
}

bool Scheduler::attached() { return t_self && t_self->attached; }

bool Scheduler::park(const char* what, const void* object, std::optional<Nanos> deadline) {
    BoardThread* me = self();
    if (!on_) return false;
    me->waitsFor = what;
    me->object = object;
    me->timedOut = false;
    me->parked = true;
    parked_.push_back(me);
    std::optional<TimerId> timer;
    if (lost_) {
        me->timedOut = true;
        makeRunnable(me);
    } else if (deadline) {
        timer = at(*deadline, [this, me] {
            me->timedOut = true;
            makeRunnable(me);
        });
    }
    if (running_ == me) {
        running_ = nullptr;
        dispatch();
    }
    const int held = boardLock().giveUp();
    me->gate.wait();
    boardLock().takeAgain(held);
    if (timer && !me->timedOut) cancel(*timer);
    me->waitsFor = "";
    return !me->timedOut;
}

void Scheduler::makeRunnable(BoardThread* thread) {
    if (!thread->parked) return;
    thread->parked = false;
    parked_.remove(thread);
    if (!thread->attached) {
        thread->gate.open();
        return;
    }
    thread->queued = true;
    runQueue_.push_back(thread);
    if (running_ == nullptr) dispatch();
}

bool Scheduler::wakeOne(const void* object) {
    for (BoardThread* thread : parked_) {
        if (thread->object != object) continue;
        makeRunnable(thread);
        return true;
    }
    return false;
}

void Scheduler::wakeAll(const void* object) {
    while (wakeOne(object)) {
    }
}

void Scheduler::sleepUntil(Nanos when, const char* what) {
    BoardThread* me = self();
    while (on_ && now() < when) {
        if (!park(what, me, when)) return;
    }
}

// Gives the turn to the next thread in the queue. When there is none, fires timers until one of
// them makes a thread runnable.
void Scheduler::dispatch() {
    if (dispatching_ || realtime_) return;  // called by a timer's action, from the loop below
    dispatching_ = true;
    while (running_ == nullptr && on_) {
        if (!runQueue_.empty()) {
            running_ = runQueue_.front();
            runQueue_.pop_front();
            running_->queued = false;
            running_->gate.open();
        } else if (!timers_.empty()) {
            fireNext();
        } else {
            deadlock();
        }
    }
    dispatching_ = false;
}

void Scheduler::fireNext() {
    trace_->cutIfDue();
    if (lost_) return;
    const auto timer = std::move(timers_.back());
    timers_.pop_back();
    virtualNow_ = std::max(now(), timer.first.first);
    timer.second();
}

void Scheduler::deadlock() {
    fprintf(stderr, "board deadlock at %.6f s: every thread waits and nothing is due\n",
            static_cast<double>(now().count()) / 1e9);
    for (const BoardThread* thread : parked_) {
        fprintf(stderr, "  thread %d waits for %s %p\n", thread->number, thread->waitsFor,
                thread->object);
    }
    const auto events = trace_->events();
    for (size_t i = events.size() > 10 ? events.size() - 10 : 0; i < events.size(); ++i) {
        fprintf(stderr, "  %s\n", toLine(events[i]).c_str());
    }
    fflush(stderr);
    abort();
}

std::shared_ptr<BoardThread> Scheduler::expectChild() {
    auto child = std::make_shared<BoardThread>();
    child->scheduler = this;
    child->number = threads_++;
    child->attached = true;
    child->arrived = false;
    child->queued = true;
    all_.push_back(child);
    runQueue_.push_back(child.get());
    return child;
}

void Scheduler::childFailed(const std::shared_ptr<BoardThread>& child) {
    std::erase(runQueue_, child.get());
    std::erase(all_, child);
}

void Scheduler::started(const std::shared_ptr<BoardThread>& child, pthread_t handle) {
    byHandle_[handle] = child;
}

std::shared_ptr<BoardThread> Scheduler::find(pthread_t handle) {
    const auto found = byHandle_.find(handle);
    return found == byHandle_.end() ? nullptr : found->second;
}

void Scheduler::forget(pthread_t handle) {
    const auto found = byHandle_.find(handle);
    if (found == byHandle_.end()) return;
    std::erase(all_, found->second);
    byHandle_.erase(found);
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
    if (scheduler.running_ != me) return;
    scheduler.running_ = nullptr;
    scheduler.dispatch();
}

void Scheduler::startClockThread() {
    clockRuns_ = true;
    ::pthread_create(&clock_, nullptr, clockThread, this);
}

void Scheduler::stopClockThread() {
    {
        Guard guard(boardLock());
        clockRuns_ = false;
    }
    clockWake_.open();
    ::pthread_join(clock_, nullptr);
}

void* Scheduler::clockThread(void* self) {
    static_cast<Scheduler*>(self)->clockLoop();
    return nullptr;
}

void Scheduler::clockLoop() {
    boardLock().lock();
    while (clockRuns_) {
        int64_t pause = -1;
        if (!timers_.empty()) pause = (timers_.back().first.first - now()).count();
        if (!timers_.empty() && pause <= 0) {
            const auto timer = std::move(timers_.back());
            timers_.pop_back();
            timer.second();
            continue;
        }
        boardLock().unlock();
        clockWake_.waitFor(pause);
        boardLock().lock();
    }
    boardLock().unlock();
}

}  // namespace quil::board
