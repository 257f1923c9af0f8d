// Every call of every flow, with every way in which it can fail: one run with just that.
#include <stdio.h>
#include <unistd.h>

#include <map>

#include "testing/heap_count.h"
#include "tests/swarm/faults/trial.h"
#include "tests/swarm/library_data.h"
#include "tests/swarm/spread.h"

namespace quil::faults {
namespace {

using nlohmann::json;
using std::chrono::steady_clock;
using swarm::lineOf;

struct Arguments {
    std::string flow, only;
    swarm::Spread spread;
    bool flows = false;
};

struct Piece {
    size_t flow;
    Site site;
    Way way;
};

std::string nameOf(const Flow& flow, const Piece& piece) {
    std::string name = flow.name + ":" + board::nameOf(piece.site.call);
    if (!piece.site.path.empty()) name += " " + piece.site.path;
    return name + ":" + std::to_string(piece.site.nth) + ":" + piece.way.name;
}

// In a process of its own, which the library's standstill may end.
Trials trialsFor(const swarm::Child::Tell& tell) {
    static const swarm::LibraryData asLoaded;
    Trials trials;
    trials.beforeBoot = [] { asLoaded.putBack(); };
    trials.onStandstill = [tell](const std::string& report) {
        tell(lineOf({{"finding", "standstill: " + report}}));
        _exit(0);
    };
    return trials;
}

std::vector<Recording> recordAll(const std::vector<Flow>& flows, unsigned jobs) {
    std::vector<Recording> recordings(flows.size());
    const swarm::Hire hire = [&flows](const swarm::Child::Tell& tell) -> swarm::Work {
        return [&flows, tell, trials = std::make_shared<Trials>(trialsFor(tell))](uint64_t piece) {
            const Recording recording = trials->record(flows[piece]);
            json sites = json::array();
            for (const Site& site : recording.sites) {
                sites.push_back({static_cast<int>(site.call), site.path, site.nth});
            }
            tell(lineOf({{"finding", recording.finding},
                         {"took", recording.took.count()},
                         {"result", recording.result},
                         {"sites", sites}}));
        };
    };
    swarm::runPieces(flows.size(), jobs, std::chrono::hours(1), hire,
                     [&](const swarm::PieceEnd& end) {
                         Recording& recording = recordings[end.piece];
                         recording.finding = end.badEnd;
                         if (!end.badEnd.empty()) return;
                         const json line = json::parse(end.line);
                         recording.finding = line["finding"];
                         if (!line.contains("sites")) return;
                         recording.took = board::Nanos(line["took"].get<int64_t>());
                         recording.result = line["result"];
                         for (const json& site : line["sites"]) {
                             recording.sites.push_back(
                                 {static_cast<Call>(site[0].get<int>()), site[1], site[2]});
                         }
                     });
    return recordings;
}

std::vector<Piece> piecesOf(const std::vector<Flow>& flows,
                            const std::vector<Recording>& recordings) {
    std::vector<Piece> pieces;
    for (size_t flow = 0; flow < flows.size(); ++flow) {
        for (const Site& site : recordings[flow].sites) {
            for (const Way& way : waysOf(site.call)) pieces.push_back({flow, site, way});
        }
    }
    return pieces;
}

// A run that leaves heap blocks is repeated: what it made for good is there by then.
std::string runCounted(Trials& trials, const Flow& flow, const Recording& recording,
                       const Piece& piece) {
    const tests::BlockCount count = tests::blockCount();
    long left = 0;
    for (int tries = 0; tries < 2; ++tries) {
        const long before = count != nullptr ? count() : 0;
        std::string finding = trials.run(flow, recording, piece.site, piece.way);
        if (!finding.empty()) return finding;
        left = (count != nullptr ? count() : 0) - before;
        if (left == 0) return "";
    }
    return "held: " + std::to_string(left) + " heap blocks";
}

class Report {
  public:
    explicit Report(bool asJson) : mJson(asJson) {}

    void add(const Piece& piece, const std::string& name, const std::string& finding) {
        ++mRuns;
        ++mCells[{piece.site.call, piece.way.name}];
        if (finding.empty()) return;
        ++mFindings;
        const std::string again = "./run faults --only '" + name + "'";
        if (mJson) {
            puts(lineOf({{"run", name}, {"finding", finding}, {"again", again}}).c_str());
        } else {
            printf("%s: %s\n  again: %s\n", name.c_str(), finding.c_str(), again.c_str());
        }
        fflush(stdout);
    }
    void addUnrecorded(const Flow& flow, const std::string& finding) {
        ++mFindings;
        printf("%s: %s, without a failure\n", flow.name.c_str(), finding.c_str());
    }

    // The matrix. Returns how many cells are empty.
    size_t close() const {
        const std::chrono::duration<double> took = steady_clock::now() - mStart;
        size_t empty = 0;
        json cells;
        for (size_t i = 0; i < board::kCalls; ++i) {
            const Call call = static_cast<Call>(i);
            if (!mJson) printf("%-13s", board::nameOf(call));
            for (const Way& way : waysOf(call)) {
                const auto found = mCells.find({call, way.name});
                const uint64_t runs = found == mCells.end() ? 0 : found->second;
                empty += runs == 0 ? 1 : 0;
                cells[board::nameOf(call)][way.name] = runs;
                if (!mJson) printf("  %s %llu", way.name, static_cast<unsigned long long>(runs));
            }
            if (!mJson) printf("\n");
        }
        if (mJson) {
            puts(lineOf({{"runs", mRuns},
                         {"findings", mFindings},
                         {"empty", empty},
                         {"seconds", took.count()},
                         {"cells", cells}})
                     .c_str());
        } else {
            printf("%llu runs in %.1f s, %llu with a finding, %zu cells of the matrix are empty\n",
                   static_cast<unsigned long long>(mRuns), took.count(),
                   static_cast<unsigned long long>(mFindings), empty);
        }
        return empty;
    }
    bool isClean() const { return mFindings == 0; }

  private:
    const bool mJson;
    const steady_clock::time_point mStart = steady_clock::now();
    uint64_t mRuns = 0, mFindings = 0;
    std::map<std::pair<Call, std::string>, uint64_t> mCells;
};

std::vector<Flow> flowsOf(const Arguments& arguments) {
    std::vector<Flow> flows = everyFlow();
    const std::string wanted = arguments.only.empty()
                                   ? arguments.flow
                                   : arguments.only.substr(0, arguments.only.find(':'));
    if (wanted.empty()) return flows;
    std::erase_if(flows, [&](const Flow& flow) { return flow.name != wanted; });
    if (flows.empty()) throw std::runtime_error("no flow " + wanted + " (--flows prints them)");
    return flows;
}

int runAll(const Arguments& arguments) {
    const swarm::Spread& spread = arguments.spread;
    const std::vector<Flow> flows = flowsOf(arguments);
    const std::vector<Recording> recordings = recordAll(flows, spread.jobs);
    Report report(spread.json);
    for (size_t i = 0; i < flows.size(); ++i) {
        if (!recordings[i].finding.empty()) report.addUnrecorded(flows[i], recordings[i].finding);
    }
    std::vector<Piece> pieces = piecesOf(flows, recordings);
    if (!arguments.only.empty()) {
        std::erase_if(pieces, [&](const Piece& piece) {
            return nameOf(flows[piece.flow], piece) != arguments.only;
        });
    }
    const auto at = [&](uint64_t piece) -> const Piece& { return pieces[spread.shard.at(piece)]; };
    const swarm::Hire hire = [&](const swarm::Child::Tell& tell) -> swarm::Work {
        return [&, tell, trials = std::make_shared<Trials>(trialsFor(tell))](uint64_t number) {
            const Piece& piece = at(number);
            tell(lineOf({{"finding",
                          runCounted(*trials, flows[piece.flow], recordings[piece.flow], piece)}}));
        };
    };
    swarm::runPieces(spread.shard.sizeOf(pieces.size()), spread.jobs, spread.most(), hire,
                     [&](const swarm::PieceEnd& end) {
                         const Piece& piece = at(end.piece);
                         const std::string finding = end.badEnd.empty()
                                                         ? json::parse(end.line)["finding"]
                                                         : json(end.badEnd);
                         report.add(piece, nameOf(flows[piece.flow], piece), finding);
                     });
    const bool isWhole = arguments.only.empty() && arguments.flow.empty() && spread.seconds == 0 &&
                         spread.shard.step == 1;
    const size_t empty = report.close();
    return report.isClean() && (empty == 0 || !isWhole) ? 0 : 1;
}

}  // namespace
}  // namespace quil::faults

int main(int count, char** values) {
    using namespace quil::faults;
    const char* const kDoes =
        "Runs each flow once for each call in it and each way that the call can fail.";
    return quil::swarm::runSpread("./run faults", kDoes, count, values, [](CLI::App& app) {
        const auto arguments = std::make_shared<Arguments>();
        app.add_option("--flow", arguments->flow, "Only this one");
        app.add_option("--only", arguments->only, "One run, as findings name it");
        app.add_flag("--flows", arguments->flows, "Only prints the flows' names");
        quil::swarm::addSpread(app, arguments->spread, "run");
        return [arguments] {
            if (!arguments->flows) return runAll(*arguments);
            for (const Flow& flow : everyFlow()) puts(flow.name.c_str());
            return 0;
        };
    });
}
