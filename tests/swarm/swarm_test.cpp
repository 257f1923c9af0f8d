// A few worlds, and what a seed promises: the same run on every machine.
#include <gtest/gtest.h>

#include <array>

#include "testing/library_test.h"
#include "tests/swarm/run.h"

namespace quil::swarm {
namespace {

Outcome outcomeOf(uint64_t seed) {
    static Ground ground;
    Outcome outcome;
    tests::standardOutputOf([&] { outcome = run(worldOf(seed), ground); });
    return outcome;
}

// Without what outlives a world in its process and cannot be reset from outside: the checksum that
// an N32's updates carry on, and the part that was detected last, which level D logs.
struct RecordedTrace {
    uint64_t seed, hash;
};
constexpr std::array<RecordedTrace, 6> kRecordedTraces = {{{1, 13813493919534577430U},
                                                           {2, 1804427100948445384U},
                                                           {3, 17079859466607743066U},
                                                           {4, 13282501901089290561U},
                                                           {5, 4201347202351725816U},
                                                           {6, 13979598765503331544U}}};

TEST(Swarm, TracesOfWorldsAreThoseOfEveryCompilerAndWordSizeAndNothingIsWrongInThem) {
    for (const RecordedTrace& recorded : kRecordedTraces) {
        const Outcome outcome = outcomeOf(recorded.seed);
        EXPECT_EQ(outcome.finding, "") << describe(worldOf(recorded.seed));
        EXPECT_EQ(outcome.traceHash, recorded.hash) << "seed " << recorded.seed;
    }
}

TEST(Swarm, WorldIsTheSameWhateverRanBeforeIt) {
    const uint64_t first = outcomeOf(8).traceHash;
    EXPECT_NE(outcomeOf(9).traceHash, first);
    EXPECT_EQ(outcomeOf(8).traceHash, first);
}

}  // namespace
}  // namespace quil::swarm
