// Runs worlds by their seeds, judges them, and shrinks those in which something is wrong.
#include <stdio.h>
#include <unistd.h>

#include "tests/swarm/flock.h"
#include "tests/swarm/shrink.h"
#include "tests/swarm/spread.h"

namespace quil::swarm {
namespace {

using std::chrono::steady_clock;

struct Arguments {
    Spread spread;
    uint64_t seed = 0, seeds = 0;
    bool stats = false, steps = false, trace = false, noShrink = false;
};

Seeds seedsOf(const Arguments& arguments) {
    constexpr uint64_t kUsual = 1000;
    Seeds seeds{.count = arguments.seeds, .shard = arguments.spread.shard};
    if (arguments.seed > 0) seeds.first = arguments.seed;
    if (seeds.count == 0 && arguments.spread.seconds == 0) {
        seeds.count = arguments.seed > 0 ? 1 : kUsual;
    }
    return seeds;
}

class Report {
  public:
    explicit Report(bool json) : mJson(json) {}

    void add(uint64_t seed, const Outcome& outcome) {
        ++mWorlds;
        addTally(outcome.tally);
        if (outcome.finding.empty()) return;
        ++mFindings;
        const std::string again = "./run swarm --seed " + std::to_string(seed);
        if (mJson) {
            print({{"seed", seed}, {"finding", outcome.finding}, {"again", again}});
        } else {
            printf("seed %llu: %s\n  again: %s\n", static_cast<unsigned long long>(seed),
                   outcome.finding.c_str(), again.c_str());
        }
        fflush(stdout);
        if (mFound.size() < kShrunkMost) mFound.push_back({seed, outcome.finding});
    }

    // Prints what the findings come to when all is left out that they do not need.
    void shrinkFindings() const {
        constexpr unsigned kTriesMost = 1'500;
        for (const auto& [seed, finding] : mFound) {
            const Shrunk shrunk =
                shrink(worldOf(seed), finding, kTriesMost,
                       [](const World& world) { return runApart(world).finding; });
            const std::string steps = describe(shrunk.world);
            if (mJson) {
                print({{"seed", seed}, {"shrunk", steps}, {"finding", shrunk.finding}});
                continue;
            }
            printf("seed %llu, shrunk in %u tries:\n%s    %s\n", count(seed), shrunk.tries,
                   steps.c_str(), shrunk.finding.c_str());
        }
    }

    void close(bool stats) const {
        const std::chrono::duration<double> took = steady_clock::now() - mStart;
        const double perSecond = static_cast<double>(mWorlds) / std::max(took.count(), 1e-9);
        if (mJson) {
            return print({{"worlds", mWorlds},
                          {"findings", mFindings},
                          {"seconds", took.count()},
                          {"boots", mTally.boots},
                          {"cuts", mTally.cuts},
                          {"steps", mTally.calls}});
        }
        printf("%llu worlds, %llu with a finding\n", count(mWorlds), count(mFindings));
        if (!stats) return;
        printf(
            "%.0f worlds a second (%.1f s): %llu boots, %llu sessions, %llu power cuts, "
            "%llu steps of clients\n",
            perSecond, took.count(), count(mTally.boots), count(mTally.sessions),
            count(mTally.cuts), count(mTally.calls));
        const MailboxTally& answers = mTally.answers;
        printf(
            "answers: %llu own, %llu empty, %llu stale, %llu while updating, %llu self-tests; "
            "%llu registries undecided\n",
            count(answers.own), count(answers.empty), count(answers.stale), count(answers.updating),
            count(answers.selfTests), count(mTally.undecided));
    }
    bool isClean() const { return mFindings == 0; }

  private:
    static unsigned long long count(uint64_t number) { return number; }
    static void print(const nlohmann::json& line) { puts(lineOf(line).c_str()); }
    void addTally(const Tally& tally) {
        mTally.boots += tally.boots;
        mTally.sessions += tally.sessions;
        mTally.cuts += tally.cuts;
        mTally.calls += tally.calls;
        mTally.undecided += tally.undecided;
        mTally.answers.own += tally.answers.own;
        mTally.answers.empty += tally.answers.empty;
        mTally.answers.stale += tally.answers.stale;
        mTally.answers.updating += tally.answers.updating;
        mTally.answers.selfTests += tally.answers.selfTests;
    }

    const bool mJson;
    const steady_clock::time_point mStart = steady_clock::now();
    static constexpr size_t kShrunkMost = 5;
    uint64_t mWorlds = 0, mFindings = 0;
    std::vector<std::pair<uint64_t, std::string>> mFound;  // the first few
    Tally mTally;
};

int runWorlds(const Arguments& arguments) {
    const Spread& spread = arguments.spread;
    Report report(spread.json);
    runAll(seedsOf(arguments), spread.jobs, spread.most(),
           [&](uint64_t seed, const Outcome& outcome) { report.add(seed, outcome); });
    report.close(arguments.stats);
    if (!arguments.noShrink) report.shrinkFindings();
    return report.isClean() ? 0 : 1;
}

// What the library prints is not part of it.
int printTrace(uint64_t seed) {
    FILE* out = fdopen(dup(STDOUT_FILENO), "w");
    if (out == nullptr || freopen("/dev/null", "w", stdout) == nullptr) return 1;
    Ground ground;
    RunOptions options;
    options.onTrace = [out](const std::string& trace) { fputs(trace.c_str(), out); };
    const Outcome outcome = run(worldOf(seed), ground, options);
    fprintf(out, "%s\n", outcome.finding.c_str());
    return fclose(out) == 0 && outcome.finding.empty() ? 0 : 1;
}

}  // namespace
}  // namespace quil::swarm

int main(int count, char** values) {
    using namespace quil::swarm;
    const char* const kDoes =
        "Runs worlds by their seeds, judges them, and shrinks those that fail.";
    return quil::swarm::runSpread("./run swarm", kDoes, count, values, [](CLI::App& app) {
        const auto arguments = std::make_shared<Arguments>();
        app.add_option("--seed", arguments->seed, "The first seed; alone, the only one");
        app.add_option("--seeds", arguments->seeds, "How many (default: 1000)");
        app.add_flag("--stats", arguments->stats, "Says how much was run, and how fast");
        app.add_flag("--no-shrink", arguments->noShrink,
                     "Leaves the worlds of findings as they are");
        app.add_flag("--steps", arguments->steps, "Only prints the world of --seed");
        app.add_flag("--trace", arguments->trace, "Prints all that happens in the world of --seed");
        addSpread(app, arguments->spread, "seed");
        return [arguments] {
            if (arguments->trace) return printTrace(arguments->seed);
            if (!arguments->steps) return runWorlds(*arguments);
            printf("%s", describe(worldOf(arguments->seed)).c_str());
            return 0;
        };
    });
}
