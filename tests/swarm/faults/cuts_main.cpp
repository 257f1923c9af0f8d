// Power is cut at each event of each flow, in each way; the next boot has to mend it.
#include <stdio.h>
#include <sys/resource.h>
#include <unistd.h>

#include <set>

#include "board/core/random.h"
#include "tests/swarm/faults/cuts.h"
#include "tests/swarm/library_data.h"
#include "tests/swarm/spread.h"

namespace quil::faults {
namespace {

using nlohmann::json;
using std::chrono::steady_clock;
using swarm::lineOf;
using tests::CutState;
using tests::KeptFiles;

struct Arguments {
    std::string flow, only;
    swarm::Spread spread;
    uint64_t samples = 0, seed = 1;
    bool smallest = false, pairs = false, flows = false;
};

// What one piece of the work comes to.
struct Share {
    uint64_t cuts = 0, boots = 0;
    std::vector<std::pair<std::string, std::string>> findings;  // the cuts, and what is wrong
};

// The parts into which a flow's first states are divided.
constexpr uint64_t kParts = 8;

// The sweeps of one process: what it has mended, it does not mend again.
class Sweeper {
  public:
    Sweeper(const std::vector<CutFlow>& flows, Cuts cuts) : mFlows(flows), mCuts(std::move(cuts)) {}

    Share singles(size_t flow, uint64_t part) {
        Share share;
        take(flow);
        for (size_t i = part; i < mFirst.size(); i += kParts) judge(share, mFirst[i], {});
        return share;
    }

    // A second cut in each boot that mends a first one.
    Share pairs(size_t flow, uint64_t part) {
        Share share;
        take(flow);
        for (size_t i = part; i < mFirst.size(); i += kParts) {
            ++share.boots;
            for (const CutState& second : next(mFirst[i])) {
                judge(share, second, {mFirst[i].first}, mFirst[i].cuts);
            }
        }
        return share;
    }

    // Pairs or triples that the seed draws.
    Share sample(uint64_t seed) {
        constexpr size_t kLast = 16;
        Share share;
        board::Random random(seed, "cuts");
        take(random.below(mFlows.size()));
        const CutState first = mFirst[random.below(mFirst.size())];
        std::vector<CutState> states = next(first);
        CutRow before = {first.first};
        ++share.boots;
        if (random.below(2) == 1) {
            const CutState second = states[random.below(states.size())];
            before.push_back(second.first);
            states = next(second);
            ++share.boots;
        }
        for (size_t i = 0; i < kLast; ++i) {
            judge(share, states[random.below(states.size())], before);
        }
        return share;
    }

  private:
    const swarm::World& world() const { return mFlows[mFlow].world; }

    void take(size_t flow) {
        if (!mFirst.empty() && flow == mFlow) return;
        mFlow = flow;
        mMended.clear();
        mFirst = mCuts.firstStates(world());
    }
    std::vector<CutState> next(const CutState& state) {
        return mCuts.nextStates(world(), state.files);
    }

    void judge(Share& share, const CutState& state, CutRow before, uint64_t times = 1) {
        share.cuts += state.cuts * times;
        if (!mMended.insert(state.files).second) return;
        ++share.boots;
        const std::string finding = mCuts.mend(world(), state.files);
        if (finding.empty()) return;
        before.push_back(state.first);
        share.findings.emplace_back(mFlows[mFlow].name + ":" + nameOf(before), finding);
    }

    const std::vector<CutFlow>& mFlows;
    Cuts mCuts;
    size_t mFlow = 0;
    std::vector<CutState> mFirst;
    std::set<KeptFiles> mMended;
};

json jsonOf(const Share& share) {
    return {{"cuts", share.cuts}, {"boots", share.boots}, {"findings", share.findings}};
}

// Of the processes that have done the work.
double processorSeconds() {
    rusage used{};
    getrusage(RUSAGE_CHILDREN, &used);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(used.ru_utime) + seconds(used.ru_stime);
}

class Report {
  public:
    explicit Report(const Arguments& arguments) : mArguments(arguments) {}

    void add(const json& line) {
        mCuts += line["cuts"].get<uint64_t>();
        mBoots += line["boots"].get<uint64_t>();
        for (const json& finding : line["findings"]) add(finding[0], finding[1]);
    }
    void add(const std::string& name, const std::string& finding) {
        ++mFindings;
        const std::string again = std::string("./run cuts ") +
                                  (mArguments.smallest ? "--smallest " : "") + "--only " + name;
        if (mArguments.spread.json) {
            puts(lineOf({{"cut", name}, {"finding", finding}, {"again", again}}).c_str());
        } else {
            printf("%s: %s\n  again: %s\n", name.c_str(), finding.c_str(), again.c_str());
        }
        fflush(stdout);
    }
    int close() const {
        const std::chrono::duration<double> took = steady_clock::now() - mStart;
        const double worked = processorSeconds(), cuts = static_cast<double>(mCuts);
        if (mArguments.spread.json) {
            puts(lineOf({{"cuts", mCuts},
                         {"boots", mBoots},
                         {"findings", mFindings},
                         {"seconds", took.count()},
                         {"processorSeconds", worked}})
                     .c_str());
        } else {
            printf("%.0f cuts, mended by %llu boots, in %.1f s: %.0f cuts a second\n", cuts,
                   static_cast<unsigned long long>(mBoots), took.count(), cuts / took.count());
            printf("of processor time and core, %.1f s: %.0f cuts a second\n", worked,
                   cuts / worked);
            printf("%llu findings\n", static_cast<unsigned long long>(mFindings));
        }
        return mFindings == 0 ? 0 : 1;
    }

  private:
    const Arguments& mArguments;
    const steady_clock::time_point mStart = steady_clock::now();
    uint64_t mCuts = 0, mBoots = 0, mFindings = 0;
};

std::vector<CutFlow> flowsOf(const Arguments& arguments) {
    std::vector<CutFlow> flows =
        everyCutFlow(arguments.smallest ? Images::kSmallest : Images::kShipped);
    const std::string& named = arguments.only.empty() ? arguments.flow : arguments.only;
    const std::string wanted = named.substr(0, named.find(':'));
    if (!wanted.empty()) {
        std::erase_if(flows, [&](const CutFlow& flow) { return flow.name != wanted; });
    }
    if (flows.empty()) throw std::runtime_error("no flow " + wanted + " (--flows prints them)");
    return flows;
}

Cuts cutsFor(const swarm::Child::Tell& tell) {
    static const swarm::LibraryData asLoaded;
    Cuts cuts;
    cuts.beforeBoot = [] { asLoaded.putBack(); };
    cuts.onStandstill = [tell](const std::string& report) {
        Share share;
        share.findings.emplace_back("a standstill", report);
        tell(lineOf(jsonOf(share)));
        _exit(0);
    };
    return cuts;
}

int sweep(const Arguments& arguments, const std::vector<CutFlow>& flows) {
    Report report(arguments);
    const bool isSample = arguments.samples > 0;
    const auto work = [&](Sweeper& sweeper, uint64_t piece) {
        if (isSample) return sweeper.sample(arguments.seed + piece);
        return arguments.pairs ? sweeper.pairs(piece / kParts, piece % kParts)
                               : sweeper.singles(piece / kParts, piece % kParts);
    };
    const swarm::Hire hire = [&](const swarm::Child::Tell& tell) -> swarm::Work {
        return [&, tell, sweeper = std::make_shared<Sweeper>(flows, cutsFor(tell))](uint64_t at) {
            const uint64_t piece = arguments.spread.shard.at(at);
            try {
                tell(lineOf(jsonOf(work(*sweeper, piece))));
            } catch (const std::exception& error) {
                Share share;
                share.findings.emplace_back("piece " + std::to_string(piece), error.what());
                tell(lineOf(jsonOf(share)));
            }
        };
    };
    const uint64_t count = isSample ? arguments.samples : flows.size() * kParts;
    const swarm::Spread& spread = arguments.spread;
    swarm::runPieces(spread.shard.sizeOf(count), spread.jobs, spread.most(), hire,
                     [&](const swarm::PieceEnd& end) {
                         if (end.badEnd.empty()) return report.add(json::parse(end.line));
                         const uint64_t piece = arguments.spread.shard.at(end.piece);
                         report.add("piece " + std::to_string(piece), end.badEnd);
                     });
    return report.close();
}

int replay(const Arguments& arguments, const CutFlow& flow) {
    const size_t name = arguments.only.find(':');
    if (name == std::string::npos) throw std::runtime_error(arguments.only + ": no cut");
    const CutRow row = cutRowNamed(arguments.only.substr(name + 1));
    std::string told;
    swarm::runPieces(
        1, 1, std::chrono::minutes(5),
        [&](const swarm::Child::Tell& tell) -> swarm::Work {
            return [&, tell](uint64_t /*piece*/) { tell(cutsFor(tell).replay(flow.world, row)); };
        },
        [&](const swarm::PieceEnd& end) { told = end.badEnd.empty() ? end.line : end.badEnd; });
    puts(told.empty() ? "mended" : told.c_str());
    return told.empty() ? 0 : 1;
}

int runAs(const Arguments& arguments) {
    const std::vector<CutFlow> flows = flowsOf(arguments);
    if (!arguments.only.empty()) return replay(arguments, flows.front());
    if (!arguments.flows) return sweep(arguments, flows);
    for (const CutFlow& flow : flows) puts(flow.name.c_str());
    return 0;
}

}  // namespace
}  // namespace quil::faults

int main(int count, char** values) {
    using namespace quil::faults;
    const char* const kDoes =
        "Cuts the power at each event of each flow; the next boot has to mend what is left.";
    return quil::swarm::runSpread("./run cuts", kDoes, count, values, [](CLI::App& app) {
        const auto arguments = std::make_shared<Arguments>();
        app.add_option("--flow", arguments->flow, "Only this one");
        app.add_flag("--smallest", arguments->smallest,
                     "The smallest images, not the shipped sizes");
        app.add_flag("--pairs", arguments->pairs, "A second cut in each boot that mends");
        app.add_option("--samples", arguments->samples,
                       "Pairs and triples that so many seeds draw");
        app.add_option("--seed", arguments->seed, "The first of these seeds");
        app.add_option("--only", arguments->only, "These cuts for real, as findings name them");
        app.add_flag("--flows", arguments->flows, "Only prints the flows' names");
        quil::swarm::addSpread(app, arguments->spread, "piece of the work");
        return [arguments] { return runAs(*arguments); };
    });
}
