#include "tests/torture/torture.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <thread>

#include "testing/verb_cases.h"
#include "tests/torture/conditions.h"

namespace quil::torture {
namespace {

using Clock = std::chrono::steady_clock;
using tools::Words;

// A sample takes one case of every eighth pair of command and condition: each command and each
// condition occurs, and it takes seconds.
constexpr size_t kSampled = 8;

// The outcomes of commands without a hardship; each command is run once for it.
class UsualOutcomes {
  public:
    const Outcome& of(const Words& verb, const Case& like) {
        Case plain{.json = like.json, .keptBoard = like.keptBoard, .options = like.options};
        // In board time the outcome is the same, and it is there sooner.
        auto& options = plain.options;
        options.erase(std::remove(options.begin(), options.end(), "--realtime"), options.end());
        const std::string key = textOf(verb) + (plain.json ? " json" : "") +
                                (plain.keptBoard ? " kept " : " ") + textOf(plain.options);
        {
            const std::lock_guard guard(mLock);
            const auto known = mOutcomes.find(key);
            if (known != mOutcomes.end()) return known->second;
        }
        Outcome outcome = perform(verb, plain);
        const std::lock_guard guard(mLock);
        return mOutcomes.emplace(key, std::move(outcome)).first->second;
    }

  private:
    std::mutex mLock;
    std::map<std::string, Outcome> mOutcomes;
};

// A command under a condition.
struct Unit {
    size_t verb, condition;
};

std::vector<Unit> unitsOf(const Choice& choice, const std::vector<Words>& verbs) {
    std::vector<Unit> units;
    for (size_t condition = 0; condition < conditions().size(); ++condition) {
        const std::string name = conditions()[condition].name;
        if (!choice.condition.empty() && choice.condition != name) continue;
        for (size_t verb = 0; verb < verbs.size(); ++verb) {
            if (!choice.verb.empty() && choice.verb != textOf(verbs[verb])) continue;
            if (choice.sample && (verb + condition + choice.seed) % kSampled != 0) continue;
            units.push_back({verb, condition});
        }
    }
    return units;
}

std::string detailsOf(const Outcome& outcome) {
    return "$ " + textOf(outcome.words) + "\n" + outcome.ended.terminal + outcome.out + outcome.err;
}

class Torture {
  public:
    Torture(const Choice& choice, const std::function<void(const Finding&)>& onCase)
        : mChoice(choice),
          mOnCase(onCase),
          mVerbs(tools::verbsOf(tools::kBoardProgram)),
          mUnits(unitsOf(choice, mVerbs)) {
        for (const Condition& condition : conditions()) mRows.push_back({condition.name});
    }

    std::vector<Row> run() {
        std::vector<std::thread> workers;
        for (unsigned i = 0; i < std::max(mChoice.jobs, 1U); ++i)
            workers.emplace_back([this] { work(); });
        for (std::thread& worker : workers) worker.join();
        return mRows;
    }

  private:
    void work() {
        for (size_t i = mNext++; i < mUnits.size(); i = mNext++) {
            if (i % mChoice.shards != mChoice.shard) continue;
            try {
                runUnit(mUnits[i]);
            } catch (const std::exception& error) {
                count(mUnits[i], Case{}, 0, {error.what()}, {}, {});
            }
        }
    }

    void runUnit(const Unit& unit) {
        const Words& verb = mVerbs[unit.verb];
        const auto rows = tests::verbCases("/");
        const auto row = rows.find(textOf(verb));
        if (row == rows.end()) throw std::runtime_error("no row in testing/verb_cases.h");
        const Subject subject{
            verb, row->second.powersBoard, !row->second.serving.empty(), mVerbs,
            [&](const Case& like) -> const Outcome& { return mUsual.of(verb, like); }};
        const auto cases = conditions()[unit.condition].cases(subject);
        for (size_t i = 0; i < cases.size(); ++i) {
            if (!isChosen(unit, cases, i)) continue;
            const auto began = Clock::now();
            const Outcome outcome = perform(verb, cases[i]);
            const auto complaints =
                complaintsAbout(verb, cases[i], outcome, mUsual.of(verb, cases[i]));
            count(unit, cases[i], static_cast<int>(i) + 1, complaints, outcome,
                  std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began));
        }
    }

    bool isChosen(const Unit& unit, const std::vector<Case>& cases, size_t index) const {
        if (mChoice.number != 0) return static_cast<size_t>(mChoice.number) == index + 1;
        if (!mChoice.sample) return true;
        const auto quick =
            std::count_if(cases.begin(), cases.end(), [](const Case& one) { return !one.slow; });
        const uint64_t mixed =
            (mChoice.seed * 31 + unit.verb * 131 + unit.condition * 17) * 0x9E3779B97F4A7C15U;
        const auto before = std::count_if(cases.begin(), cases.begin() + static_cast<long>(index),
                                          [](const Case& one) { return !one.slow; });
        return !cases[index].slow &&
               (mixed >> 32U) % static_cast<uint64_t>(quick) == static_cast<uint64_t>(before);
    }

    void count(const Unit& unit, const Case& one, int number,
               const std::vector<std::string>& complaints, const Outcome& outcome,
               std::chrono::milliseconds took) {
        const std::lock_guard guard(mLock);
        Row& row = mRows[unit.condition];
        ++row.cases;
        row.took += took;
        if (!complaints.empty()) ++row.failures;
        std::string text;
        for (const std::string& complaint : complaints) {
            text += (text.empty() ? "" : "; ") + complaint;
        }
        mOnCase(
            {row.condition, textOf(mVerbs[unit.verb]), one.name, number, text, detailsOf(outcome)});
    }

    const Choice& mChoice;
    const std::function<void(const Finding&)>& mOnCase;
    const std::vector<Words> mVerbs;
    const std::vector<Unit> mUnits;
    std::atomic<size_t> mNext{0};
    UsualOutcomes mUsual;
    std::mutex mLock;
    std::vector<Row> mRows;
};

}  // namespace

std::vector<Row> torture(const Choice& choice, const std::function<void(const Finding&)>& onCase) {
    return Torture(choice, onCase).run();
}

std::string replayOf(const Finding& finding) {
    return "./run torture --condition " + finding.condition + " --verb '" + finding.verb +
           "' --case " + std::to_string(finding.number);
}

}  // namespace quil::torture
