#include "tests/swarm/flock.h"

#include <unistd.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "tests/swarm/child.h"
#include "tests/swarm/heap_count.h"
#include "tests/swarm/library_data.h"

namespace quil::swarm {
namespace {

using nlohmann::json;
using std::chrono::steady_clock;

// Of a world, in real time. The board ends what waits; this is for what never waits.
constexpr std::chrono::seconds kWorldMost{60};

constexpr uint64_t kRunAgain = 16;  // every so many seeds

constexpr uint64_t Tally::*kTallies[] = {&Tally::boots, &Tally::sessions, &Tally::cuts,
                                         &Tally::calls, &Tally::undecided};
constexpr uint64_t MailboxTally::*kAnswers[] = {&MailboxTally::own, &MailboxTally::empty,
                                                &MailboxTally::stale, &MailboxTally::updating,
                                                &MailboxTally::selfTests};

std::string toText(uint64_t seed, const Outcome& outcome) {
    json line = {{"seed", seed}, {"finding", outcome.finding}, {"trace", outcome.traceHash}};
    for (const auto tally : kTallies) line["tally"].push_back(outcome.tally.*tally);
    for (const auto answer : kAnswers) line["answers"].push_back(outcome.tally.answers.*answer);
    return line.dump(-1, ' ', false, json::error_handler_t::replace);
}

Outcome outcomeOf(const json& line) {
    Outcome outcome;
    outcome.finding = line["finding"];
    outcome.traceHash = line["trace"];
    size_t at = 0;
    for (const auto tally : kTallies) outcome.tally.*tally = line["tally"][at++];
    at = 0;
    for (const auto answer : kAnswers) outcome.tally.answers.*answer = line["answers"][at++];
    return outcome;
}

Outcome runOnce(const World& world, Ground& ground, const Child::Tell& tell) {
    static const LibraryData asLoaded;
    RunOptions options;
    options.beforeBoot = [] { asLoaded.putBack(); };
    options.onStandstill = [&](const std::string& report) {
        Outcome outcome;
        outcome.finding = "standstill: " + report;
        tell(toText(world.seed, outcome));
        _exit(0);
    };
    return run(world, ground, options);
}

// The same world once more: the trace has to be the same, and what the first run made for good is
// there already, so that no heap block may be left.
std::string problemOfAgain(const World& world, uint64_t trace, Ground& ground,
                           const Child::Tell& tell) {
    const BlockCount count = blockCount();
    if (count == nullptr) return "";
    const long before = count();
    {
        const Outcome again = runOnce(world, ground, tell);
        if (!again.finding.empty()) return again.finding;
        if (again.traceHash != trace) return "trace: not the same again";
    }
    const long left = count() - before;
    return left == 0 ? "" : "held: " + std::to_string(left) + " heap blocks";
}

// Runs the world and tells how it ended; a standstill ends the process.
void runAndTell(const World& world, Ground& ground, const Child::Tell& tell) {
    Outcome outcome = runOnce(world, ground, tell);
    if (outcome.finding.empty() && world.seed % kRunAgain == 0) {
        outcome.finding = problemOfAgain(world, outcome.traceHash, ground, tell);
    }
    tell(toText(world.seed, outcome));
}

Outcome endedBadly(Child& child) {
    Outcome outcome;
    const bool isEndless = !child.isOver();
    const std::string how = child.end();
    outcome.finding = isEndless ? "endless: no end after a minute" : "crash: " + how;
    return outcome;
}

// A process that runs its part of the seeds, and its followers when it comes to a bad end.
class Worker {
  public:
    Worker(const Seeds& seeds, uint64_t first, uint64_t step)
        : mSeeds(seeds), mStep(step), mNext(first) {
        start();
    }

    Child& child() { return *mChild; }
    bool isThrough() const { return mNext >= end() && mChild->isOver(); }
    // Takes what it has told. Returns how many worlds ended.
    uint64_t take(const std::function<void(uint64_t seed, const Outcome&)>& ended) {
        uint64_t worlds = 0;
        while (const auto line = mChild->line()) {
            const json told = json::parse(*line);
            ended(told["seed"], outcomeOf(told));
            mNext += mStep;
            ++worlds;
        }
        if (mNext >= end()) return worlds;
        if (!mChild->isOver() && mChild->silence() < kWorldMost) return worlds;
        if (!mChild->isOver() || mChild->end() != "") return worlds + replace(ended);
        start();  // it ended after a standstill, which it told
        return worlds;
    }

  private:
    uint64_t end() const { return mSeeds.count == 0 ? UINT64_MAX : mSeeds.size(); }

    uint64_t replace(const std::function<void(uint64_t seed, const Outcome&)>& ended) {
        ended(mSeeds.at(mNext), endedBadly(*mChild));
        mNext += mStep;
        start();
        return 1;
    }

    void start() {
        mChild = std::make_unique<Child>([this](const Child::Tell& tell) {
            Ground ground;
            for (uint64_t i = mNext; i < end(); i += mStep) {
                runAndTell(worldOf(mSeeds.at(i)), ground, tell);
            }
        });
    }

    const Seeds mSeeds;
    const uint64_t mStep;
    uint64_t mNext;
    std::unique_ptr<Child> mChild;
};

}  // namespace

Outcome runApart(const World& world) {
    Child child([&](const Child::Tell& tell) {
        Ground ground;
        runAndTell(world, ground, tell);
    });
    Child* const only[] = {&child};
    while (!child.isOver() && child.silence() < kWorldMost) Child::waitForAny(only);
    if (const auto line = child.line()) return outcomeOf(json::parse(*line));
    return endedBadly(child);
}

uint64_t runAll(const Seeds& seeds, unsigned processes, std::chrono::seconds most,
                const std::function<void(uint64_t seed, const Outcome&)>& ended) {
    const auto until = steady_clock::now() + most;
    std::vector<std::unique_ptr<Worker>> workers;
    for (unsigned i = 0; i < processes; ++i) {
        workers.push_back(std::make_unique<Worker>(seeds, i, processes));
    }
    uint64_t worlds = 0;
    for (;;) {
        std::vector<Child*> running;
        for (const auto& worker : workers) {
            if (!worker->isThrough()) running.push_back(&worker->child());
        }
        if (running.empty() || steady_clock::now() >= until) return worlds;
        Child::waitForAny(running);
        for (const auto& worker : workers) worlds += worker->take(ended);
    }
}

}  // namespace quil::swarm
