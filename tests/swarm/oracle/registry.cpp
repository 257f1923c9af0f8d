#include "tests/swarm/oracle/registry.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

namespace quil::swarm {
namespace {

constexpr uint64_t kTriesMost = 200'000;

struct RegistryCall {
    Step step = Step::kRegister;
    int callback = 0, result = 0;
    std::vector<int> told;  // the callbacks that a broadcast called
    size_t size = 0;        // of its bytes
    bool isDone = false;    // it returned before the power went
};
using Registered = std::vector<int>;

// Does the call what it is recorded to have done with these registered?
bool happens(const RegistryCall& call, Registered& registered) {
    switch (call.step) {
        case Step::kRegister:
            registered.push_back(call.callback);
            return call.result == 0;
        case Step::kUnregister: {
            const auto entry = std::find(registered.begin(), registered.end(), call.callback);
            if (entry == registered.end()) return call.result == -1;
            registered.erase(entry);
            return call.result == 0;
        }
        default:
            return call.told == registered &&
                   call.result == (registered.empty() ? -1 : static_cast<int>(call.size));
    }
}

// Wing and Gong's search, with a memory of what led nowhere.
class Orders {
  public:
    explicit Orders(const History& history) {
        for (const Record& record : history) add(record);
    }

    bool exist() { return goOn(0, {}, {}); }
    bool gaveUp() const { return mTries > kTriesMost; }
    const std::string& farthest() const { return mFarthest; }

  private:
    struct Event {
        uint32_t operation;
        bool isEnd;
        std::string text;
    };

    void add(const Record& record) {
        RegistryCall& call = mCalls[record.operation];
        switch (record.step) {
            case Step::kRegister:
            case Step::kUnregister:
            case Step::kInvoke:
                call.step = record.step;
                call.callback = record.callback;
                call.size = record.bytes.size();
                mEvents.push_back({record.operation, false, ""});
                return;
            case Step::kNotify:
                call.told.push_back(record.callback);
                return;
            case Step::kRegisterDone:
            case Step::kUnregisterDone:
            case Step::kInvokeDone:
                call.result = record.result;
                call.isDone = true;
                mEvents.push_back({record.operation, true, toLine(record)});
                return;
            default:
                return;
        }
    }

    // From the event `at` on, with these calls under way whose moment is still to come.
    bool goOn(size_t at, std::set<uint32_t> toCome, Registered registered) {
        for (; at < mEvents.size(); ++at) {
            const Event& event = mEvents[at];
            if (!event.isEnd) {
                toCome.insert(event.operation);
            } else if (toCome.count(event.operation) != 0) {
                if (at >= mFarthestAt) mFarthest = event.text;
                mFarthestAt = std::max(mFarthestAt, at);
                return tryEach(at, toCome, registered);
            }
        }
        return true;
    }

    // One of the calls has its moment now; the one that ends next is tried first.
    bool tryEach(size_t at, const std::set<uint32_t>& toCome, const Registered& registered) {
        if (++mTries > kTriesMost) return true;
        if (!mLedNowhere.insert({at, {toCome, registered}}).second) return false;
        const uint32_t ending = mEvents[at].operation;
        if (tryOne(ending, at, toCome, registered)) return true;
        return std::any_of(toCome.begin(), toCome.end(), [&](uint32_t operation) {
            return operation != ending && tryOne(operation, at, toCome, registered);
        });
    }
    bool tryOne(uint32_t operation, size_t at, std::set<uint32_t> toCome, Registered registered) {
        const RegistryCall& call = mCalls.at(operation);
        if (!call.isDone && call.step == Step::kInvoke) return false;  // it changes nothing
        if (!happens(call, registered) && call.isDone) return false;
        toCome.erase(operation);
        return goOn(at, std::move(toCome), std::move(registered));
    }

    std::map<uint32_t, RegistryCall> mCalls;
    std::vector<Event> mEvents;
    std::set<std::pair<size_t, std::pair<std::set<uint32_t>, Registered>>> mLedNowhere;
    uint64_t mTries = 0;
    size_t mFarthestAt = 0;
    std::string mFarthest;
};

}  // namespace

std::string problemOfRegistry(const History& history, uint64_t* undecided) {
    Orders orders(history);
    if (!orders.exist()) return "no order of the calls gives: " + orders.farthest();
    if (orders.gaveUp() && undecided != nullptr) ++*undecided;
    return "";
}

}  // namespace quil::swarm
