// Power is cut at every event of an MCU update; the next boot has to repair the MCU.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/library_test.h"
#include "testing/mcu_update_cuts.h"
#include "testing/slowed.h"

namespace quil::tests {
namespace {

using board::McuKind;
using testing::IsEmpty;

// The smallest images that a session programs completely: a page of the GD32F303 is erased only if
// the image fills it, and the last block to an N32 is sent only if it is a short one.
struct Flow {
    const char* name;
    McuKind kind;
    size_t imageSize;
};
constexpr Flow kFlows[] = {
    {"gd32f303", McuKind::kGd32F303, 2048},
    {"gd32f470", McuKind::kGd32F470, 552},
    {"stm32h750", McuKind::kStm32H750, 552},
    {"n32g45x", McuKind::kN32G45x, 560},
};

void PrintTo(const Flow& flow, std::ostream* out) { *out << flow.name; }

// When slowed, every 13th state.
constexpr size_t kStride = kSlowed ? 13 : 1;

class McuUpdateSweep : public testing::TestWithParam<Flow> {
  protected:
    // Runs with an own standard output.
    template <typename Action>
    std::vector<std::string> problemsIn(Action action) {
        std::vector<std::string> problems;
        standardOutputOf([&] { problems = action(); });
        return problems;
    }

    // The first few problems, each with the command that replays it.
    std::vector<std::string> sweep() {
        const auto states = cuts.states();
        if (cuts.mend({}) != "") return {"the update fails without a cut"};
        std::vector<std::string> problems;
        for (size_t i = 0; i < states.size() && problems.size() < 3; i += kStride) {
            const std::string problem = cuts.mend(states[i].files);
            if (problem.empty()) continue;
            problems.push_back(problem + "; replay: QUIL_CUT=" + GetParam().name + ":" +
                               nameOf(states[i].first) + " ./run test -R McuUpdateSweep");
        }
        return problems;
    }

    // What the variable QUIL_CUT asks for ("gd32f303:123:inside:2").
    std::optional<PowerCut> cutToReplay() const {
        const std::string prefix = std::string(GetParam().name) + ":";
        const char* text = getenv("QUIL_CUT");
        if (text == nullptr || std::string(text).rfind(prefix, 0) != 0) return std::nullopt;
        return cutNamed(text + prefix.size());
    }

    McuUpdateCuts cuts{GetParam().kind, GetParam().imageSize};
};

TEST_P(McuUpdateSweep, BootAfterACutAtAnyEventEndsWithTheShippedVersion) {
    const auto cut = cutToReplay();
    if (!cut) {
        EXPECT_THAT(problemsIn([&] { return sweep(); }), IsEmpty());
        return;
    }
    const auto problems = problemsIn([&]() -> std::vector<std::string> {
        const auto left = cuts.runs().leftBy(*cut, {});
        return {left ? cuts.mend(*left) : "the power was never cut"};
    });
    EXPECT_THAT(problems, testing::ElementsAre(""));
}

// The sweep judges what a cut would leave without making it; here some are made.
TEST_P(McuUpdateSweep, CutsLeaveWhatTheUncutRunTellsOfThem) {
    constexpr size_t kOfStates = kSlowed ? 11 : 7;
    size_t compared = 0;
    const auto problems = problemsIn([&] {
        std::vector<std::string> wrong;
        const auto states = cuts.states();
        for (size_t i = 0; i < states.size(); i += kOfStates, ++compared) {
            if (cuts.runs().leftBy(states[i].first, {}) != states[i].files) {
                wrong.push_back(nameOf(states[i].first));
            }
        }
        return wrong;
    });
    EXPECT_THAT(problems, IsEmpty());
    EXPECT_GT(compared, 1U);
}

INSTANTIATE_TEST_SUITE_P(Parts, McuUpdateSweep, testing::ValuesIn(kFlows),
                         [](const auto& flow) { return std::string(flow.param.name); });

}  // namespace
}  // namespace quil::tests
