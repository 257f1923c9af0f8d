#include "tests/swarm/flock.h"

#include <unistd.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "testing/heap_count.h"
#include "tests/swarm/crew.h"
#include "tests/swarm/library_data.h"

namespace quil::swarm {
namespace {

using nlohmann::json;

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
    options.hashesTraces = world.seed % kRunAgain == 0;
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
    const tests::BlockCount count = tests::blockCount();
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

}  // namespace

Outcome runApart(const World& world) {
    Child child([&](const Child::Tell& tell) {
        Ground ground;
        runAndTell(world, ground, tell);
    });
    Child* const only[] = {&child};
    while (!child.isOver() && child.silence() < kPieceMost) Child::waitForAny(only);
    if (const auto line = child.line()) return outcomeOf(json::parse(*line));
    Outcome outcome;
    outcome.finding = badEndOf(child);
    return outcome;
}

uint64_t runAll(const Seeds& seeds, unsigned processes, std::chrono::seconds most,
                const std::function<void(uint64_t seed, const Outcome&)>& ended) {
    const Hire hire = [&seeds](const Child::Tell& tell) -> Work {
        return [&seeds, tell, ground = std::make_shared<Ground>()](uint64_t piece) {
            runAndTell(worldOf(seeds.at(piece)), *ground, tell);
        };
    };
    const uint64_t count = seeds.count == 0 ? UINT64_MAX : seeds.size();
    return runPieces(count, processes, most, hire, [&](const PieceEnd& end) {
        Outcome outcome;
        if (end.badEnd.empty()) outcome = outcomeOf(json::parse(end.line));
        if (!end.badEnd.empty()) outcome.finding = end.badEnd;
        ended(seeds.at(end.piece), outcome);
    });
}

}  // namespace quil::swarm
