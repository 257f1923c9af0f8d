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

// When slowed, every 13th event.
constexpr uint64_t kStride = kSlowed ? 13 : 1;

// The one cut to run, from the variable QUIL_CUT ("gd32f303:123:inside").
std::optional<board::PowerCut> cutToReplay(const Flow& flow) {
    const char* text = getenv("QUIL_CUT");
    const std::string prefix = std::string(flow.name) + ":";
    if (text == nullptr || std::string(text).rfind(prefix, 0) != 0) return std::nullopt;
    return cutNamed(text + prefix.size());
}

class McuUpdateSweep : public testing::TestWithParam<Flow> {
  protected:
    // The first few problems, each with the command that replays it.
    std::vector<std::string> sweep() {
        if (const auto cut = cutToReplay(GetParam())) return problemsOf({*cut});
        const auto all = cuts.allCuts(kStride);
        if (all.empty()) return {"the update fails without a cut"};
        return problemsOf(all);
    }

    std::vector<std::string> problemsOf(const std::vector<board::PowerCut>& all) {
        constexpr size_t kEnough = 3;
        std::vector<std::string> problems;
        for (const board::PowerCut& cut : all) {
            const std::string problem = cuts.cutAndMend(cut);
            ++done;
            if (problem.empty()) continue;
            problems.push_back(problem + "; replay: QUIL_CUT=" + GetParam().name + ":" +
                               nameOf(cut) + " ./run test -R McuUpdateSweep");
            if (problems.size() == kEnough) break;
        }
        return problems;
    }

    McuUpdateCuts cuts{GetParam().kind, GetParam().imageSize};
    size_t done = 0;
};

TEST_P(McuUpdateSweep, BootAfterACutAtAnyEventEndsWithTheShippedVersion) {
    std::vector<std::string> problems;
    standardOutputOf([&] { problems = sweep(); });
    EXPECT_THAT(problems, IsEmpty());
    RecordProperty("cuts", std::to_string(done));
}

INSTANTIATE_TEST_SUITE_P(Parts, McuUpdateSweep, testing::ValuesIn(kFlows),
                         [](const auto& flow) { return std::string(flow.param.name); });

}  // namespace
}  // namespace quil::tests
