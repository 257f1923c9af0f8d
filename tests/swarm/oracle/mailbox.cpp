#include "tests/swarm/oracle/mailbox.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

#include "board/core/bytes.h"

namespace quil::swarm {
namespace {

using Nanos = std::chrono::nanoseconds;

constexpr uint32_t kMcuEnd = 0xF5000002, kSelfTestCommand = 0xFFFFFFF4;
constexpr Nanos kDeadline = std::chrono::seconds(5), kSelfTestMost = std::chrono::seconds(60);
// Board time goes on only while everybody waits, so that whoever need not wait takes none.
constexpr Nanos kSlack = std::chrono::milliseconds(1);
constexpr size_t kRecordLeast = 10, kRecordMost = 1024;  // of a self-test

enum class Kind { kMcu, kSelfTest, kOther };

Kind kindOf(const Record& request) {
    if (request.bytes.size() < 8) return Kind::kOther;
    const uint32_t command = board::little32(request.bytes, 0);
    if (command < kMcuEnd) return Kind::kMcu;
    return command == kSelfTestCommand && !request.isWrite ? Kind::kSelfTest : Kind::kOther;
}

// Of the request that has the service.
enum class Phase {
    kNone,       // no request has it
    kInside,     // it has come in
    kSent,       // its frame is written
    kWaiting,    // the ready flag was cleared since
    kOver,       // it does not wait, or no longer
    kCopied,     // what the slot held is its answer
    kAnswering,  // its result callback runs; then the slot is emptied
};

enum class Waited { kNot, kUntilWoken, kInVain };

// What the slot holds: nothing, what the service puts there itself, or what the wakeUp of that
// number brought.
constexpr int kEmpty = -1, kUpdating = -2, kSelfTestRecord = -3;

struct State {
    Phase phase = Phase::kNone;
    Waited waited = Waited::kNot;
    int slot = kEmpty, copy = kEmpty;
    bool ready = false;
    Nanos readyAt{0};
    std::set<int> effective = {};  // the wakeUps under way that have had their effect

    auto key() const { return std::tie(phase, waited, slot, copy, ready, readyAt, effective); }
    bool operator<(const State& other) const { return key() < other.key(); }
};
using States = std::set<State>;

struct Request {
    Kind kind = Kind::kOther;
    bool isCalled = false, isSent = false;
    Nanos calledAt{0};
};

// Whether firmware was being written during a while.
struct Updating {
    bool was = false, wasNot = false;
    void see(bool updating) { (updating ? was : wasNot) = true; }
};

class Mailbox {
  public:
    Mailbox(const History& history, const MailboxRules& rules, MailboxTally* tally)
        : mHistory(history), mRules(rules), mTally(tally) {
        for (const Record& record : history) {
            Request& request = mRequests[record.operation];
            if (record.step == Step::kRequest) request.kind = kindOf(record);
            if (record.step == Step::kSent) request.isSent = true;
        }
        findOwner(0);
    }

    std::string problem() {
        for (mAt = 0; mAt < mHistory.size(); ++mAt) {
            const Record& record = mHistory[mAt];
            mNow = record.at;
            if (mAt > 0) mUpdating.see(mHistory[mAt - 1].updating);
            mUpdating.see(record.updating);
            take(record);
            if (mStates.empty()) return explained(record);
        }
        return "";
    }

  private:
    std::string explained(const Record& record) const {
        std::string text = "no order of the calls gives: " + toLine(record);
        constexpr size_t kShown = 12;
        for (size_t i = mAt < kShown ? 0 : mAt - kShown; i < mAt; ++i) {
            text += "\n      " + toLine(mHistory[i]);
        }
        return text;
    }

    // Who gets the service next is seen by who is sent or answered next.
    void findOwner(size_t from) {
        const uint32_t former = mOwner;
        mOwner = 0;
        for (size_t i = from; i < mHistory.size() && mOwner == 0; ++i) {
            const Record& record = mHistory[i];
            const bool has = record.step == Step::kSent || record.step == Step::kAnswer;
            if (has && record.operation != former) mOwner = record.operation;
        }
    }

    void take(const Record& record) {
        switch (record.step) {
            case Step::kRequest:
                return call(record);
            case Step::kSent:
                return send(record);
            case Step::kAnswer:
                return answer(record);
            case Step::kAnswered:
                mIsTaken = true;
                return comeIn();
            case Step::kRequestDone:
                settle();
                return keep([&](const State& state) {
                    return record.operation != mAnswered || state.phase != Phase::kAnswering;
                });
            case Step::kWakeUp:
                settle();
                keep([&](const State& state) {
                    return state.phase != Phase::kSent || mNow - mSentAt <= kSlack;
                });
                mBrought.push_back(record.bytes);
                mUnderWay[record.operation] = static_cast<int>(mBrought.size()) - 1;
                return;
            case Step::kWakeUpDone:
                return endWakeUp(record);
            case Step::kClockSet:
                (record.by < Nanos(0) ? mSetBack : mSetForward) += std::chrono::abs(record.by);
                return;
            default:
                return;  // not the mailbox's
        }
    }

    void call(const Record& record) {
        Request& request = mRequests[record.operation];
        request.isCalled = true;
        request.calledAt = record.at;
        if (record.operation == mOwner) comeIn();
    }

    // The owner may come in from here on.
    void comeIn() {
        mSince = mSentAt = mNow;
        mSetBack = mSetForward = Nanos(0);
        mUpdating = {};
        mUpdating.see(mHistory[mAt].updating);
    }

    void send(const Record& record) {
        settle();
        mSentAt = mNow;
        keep([&](const State& state) {
            return record.operation == mOwner && mUpdating.wasNot && state.phase == Phase::kInside;
        });
        change([](State& state) { state.phase = Phase::kSent; });
    }

    void answer(const Record& record) {
        settle();
        const Nanos took = mNow - mSince;
        keep([&](const State& state) {
            return record.operation == mOwner && state.phase == Phase::kCopied &&
                   mayTake(state, took) && is(state.copy, record.bytes);
        });
        if (mStates.empty()) return;
        count(*mStates.begin());
        change([](State& state) {
            state.phase = Phase::kAnswering;
            state.waited = Waited::kNot;
            state.copy = kEmpty;
            state.readyAt = Nanos(0);
        });
        mAnswered = record.operation;
        mIsTaken = false;
        findOwner(mAt + 1);
    }

    void endWakeUp(const Record& record) {
        settle();
        const int number = mUnderWay.at(record.operation);
        mUnderWay.erase(record.operation);
        keep([&](const State& state) { return state.effective.count(number) != 0; });
        change([&](State& state) { state.effective.erase(number); });
    }

    bool mayTake(const State& state, Nanos took) const {
        switch (state.waited) {
            case Waited::kUntilWoken:
                return mNow - state.readyAt <= kSlack;
            case Waited::kInVain:
                return took <= kDeadline + mSetBack + kSlack;
            case Waited::kNot:
                return took <= (ownerIs(Kind::kSelfTest) ? kSelfTestMost : kSlack);
        }
        return false;
    }

    bool is(int slot, const Bytes& answer) const {
        if (slot >= 0) return answer == mBrought[static_cast<size_t>(slot)];
        if (slot == kUpdating) return answer == Bytes{0xFF};
        if (answer.empty()) return true;
        return slot == kSelfTestRecord && answer.size() >= kRecordLeast &&
               answer.size() <= kRecordMost && board::little32(answer, 0) == kSelfTestCommand;
    }

    bool ownerIs(Kind kind) const { return mRequests.at(mOwner).kind == kind; }

    // Adds the states that the present ones may have led to by now.
    void settle() {
        mOpen.assign(mStates.begin(), mStates.end());
        while (!mOpen.empty()) {
            const State state = mOpen.back();
            mOpen.pop_back();
            for (const auto& [operation, number] : mUnderWay) wake(state, number);
            proceed(state);
        }
    }

    void add(const State& state) {
        if (mStates.insert(state).second) mOpen.push_back(state);
    }
    void go(State state, Phase phase) {
        state.phase = phase;
        add(state);
    }

    void wake(State state, int number) {
        if (!state.effective.insert(number).second) return;
        state.slot = number;
        if (!state.ready) state.readyAt = mNow;
        state.ready = true;
        add(state);
    }

    void proceed(State state) {
        switch (state.phase) {
            case Phase::kNone:
                if (mOwner != 0 && mRequests.at(mOwner).isCalled) go(state, Phase::kInside);
                return;
            case Phase::kInside:
                return proceedInside(state);
            case Phase::kSent:
                state.ready = false;
                return go(state, Phase::kWaiting);
            case Phase::kWaiting:
                if (state.ready) {
                    state.ready = false;
                    state.waited = Waited::kUntilWoken;
                    return go(state, Phase::kOver);
                }
                if (mNow - mSince < kDeadline - mSetForward) return;
                state.waited = Waited::kInVain;
                return go(state, Phase::kOver);
            case Phase::kOver:
                state.copy = state.slot;
                return go(state, Phase::kCopied);
            case Phase::kAnswering:
                if (!mIsTaken) return;
                state.slot = kEmpty;
                return go(state, Phase::kNone);
            default:
                return;
        }
    }

    void proceedInside(State state) {
        if (ownerIs(Kind::kOther)) return go(state, Phase::kOver);
        if (ownerIs(Kind::kSelfTest)) {
            state.slot = kSelfTestRecord;
            return go(state, Phase::kOver);
        }
        if (mRequests.at(mOwner).isSent) return;  // until it is
        if (mRules.sendMayFail) {
            go(state, Phase::kOver);
            go(state, Phase::kSent);
        }
        if (!mUpdating.was) return;
        state.slot = kUpdating;
        go(state, Phase::kOver);
    }

    template <typename Wanted>
    void keep(const Wanted& wanted) {
        std::erase_if(mStates, [&](const State& state) { return !wanted(state); });
    }
    template <typename Change>
    void change(const Change& makeOther) {
        States changed;
        for (State state : mStates) {
            makeOther(state);
            changed.insert(state);
        }
        mStates = std::move(changed);
    }

    void count(const State& state) {
        if (mTally == nullptr) return;
        const bool isOwn = state.waited == Waited::kUntilWoken;
        if (state.copy == kEmpty) ++mTally->empty;
        if (state.copy == kUpdating) ++mTally->updating;
        if (state.copy == kSelfTestRecord) ++mTally->selfTests;
        if (state.copy >= 0) ++(isOwn ? mTally->own : mTally->stale);
    }

    const History& mHistory;
    const MailboxRules mRules;
    MailboxTally* const mTally;
    std::map<uint32_t, Request> mRequests;
    States mStates = {State()};
    std::vector<State> mOpen;
    size_t mAt = 0;
    Nanos mNow{0}, mSince{0}, mSentAt{0};
    Nanos mSetBack{0}, mSetForward{0};  // the clock of the deadline, since mSince
    uint32_t mOwner = 0, mAnswered = 0;
    bool mIsTaken = true;
    Updating mUpdating;
    std::map<uint32_t, int> mUnderWay;  // wakeUps that have not returned: operation and number
    std::vector<Bytes> mBrought;
};

}  // namespace

std::string problemOfAnswers(const History& history, const MailboxRules& rules,
                             MailboxTally* tally) {
    return Mailbox(history, rules, tally).problem();
}

}  // namespace quil::swarm
