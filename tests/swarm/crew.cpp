#include "tests/swarm/crew.h"

#include <stdio.h>

#include <memory>
#include <vector>

#include "testing/one_core.h"

namespace quil::swarm {
namespace {

using std::chrono::steady_clock;

// A process that does every so many pieces, and its followers when it comes to a bad end.
class Worker {
  public:
    Worker(uint64_t first, uint64_t step, uint64_t end, const Hire& hire)
        : mFirst(first), mStep(step), mEnd(end), mHire(hire), mNext(first) {
        start();
    }

    Child& child() { return *mChild; }
    bool isThrough() const { return mNext >= mEnd && mChild->isOver(); }
    // Takes what it has told. Returns how many pieces ended.
    uint64_t take(const std::function<void(const PieceEnd&)>& ended) {
        uint64_t pieces = 0;
        while (const auto line = mChild->line()) {
            ended({mNext, *line, ""});
            mNext += mStep;
            ++pieces;
        }
        if (mNext >= mEnd) return pieces;
        if (!mChild->isOver() && mChild->silence() < kPieceMost) return pieces;
        if (mChild->isOver() && mChild->end().empty()) {
            start();  // it ended after what it told
            return pieces;
        }
        ended({mNext, "", badEndOf(*mChild)});
        mNext += mStep;
        start();
        return pieces + 1;
    }

  private:
    void start() {
        mChild = std::make_unique<Child>([this](const Child::Tell& tell) {
            tests::stayOnCore(mFirst);
            const Work work = mHire(tell);
            for (uint64_t piece = mNext; piece < mEnd; piece += mStep) work(piece);
        });
    }

    const uint64_t mFirst, mStep, mEnd;
    const Hire& mHire;
    uint64_t mNext;
    std::unique_ptr<Child> mChild;
};

}  // namespace

std::string problemOfShard(const std::string& text, Shard& shard) {
    unsigned long long first = 0, step = 0;
    const bool isOne = sscanf(text.c_str(), "%llu/%llu", &first, &step) == 2 && first < step;
    shard = {first, step};
    return isOne ? "" : "a shard is I/N, with I from 0 to N - 1";
}

std::string badEndOf(Child& child) {
    const bool isEndless = !child.isOver();
    const std::string how = child.end();
    return isEndless ? "endless: no end after three minutes" : "crash: " + how;
}

uint64_t runPieces(uint64_t count, unsigned processes, std::chrono::seconds most, const Hire& hire,
                   const std::function<void(const PieceEnd&)>& ended) {
    const auto until = steady_clock::now() + most;
    std::vector<std::unique_ptr<Worker>> workers;
    for (unsigned i = 0; i < processes; ++i) {
        workers.push_back(std::make_unique<Worker>(i, processes, count, hire));
    }
    uint64_t pieces = 0;
    for (;;) {
        std::vector<Child*> running;
        for (const auto& worker : workers) {
            if (!worker->isThrough()) running.push_back(&worker->child());
        }
        if (running.empty() || steady_clock::now() >= until) return pieces;
        Child::waitForAny(running);
        for (const auto& worker : workers) pieces += worker->take(ended);
    }
}

}  // namespace quil::swarm
