// A few of the runs that `./run faults` and `./run cuts` make, and that nothing is left out there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "testing/library_test.h"
#include "testing/project_files.h"
#include "testing/slowed.h"
#include "tests/swarm/faults/cuts.h"
#include "tests/swarm/faults/trial.h"

namespace quil::faults {
namespace {

using testing::Contains;
using testing::IsEmpty;

const Flow& flowNamed(const std::string& name) {
    static const std::vector<Flow> flows = everyFlow();
    return *std::find_if(flows.begin(), flows.end(),
                         [&](const Flow& flow) { return flow.name == name; });
}

// Every so many of the flow's runs; gives what is wrong in them.
std::vector<std::string> findingsIn(const Flow& flow, size_t stride) {
    std::vector<std::string> findings;
    tests::standardOutputOf([&] {
        Trials trials;
        const Recording recording = trials.record(flow);
        size_t number = 0;
        for (const Site& site : recording.sites) {
            for (const Way& way : waysOf(site.call)) {
                if (number++ % stride != 0) continue;
                const std::string finding = trials.run(flow, recording, site, way);
                if (!finding.empty()) findings.push_back(finding);
            }
        }
        if (number == 0) findings.emplace_back("nothing can fail");
    });
    return findings;
}

TEST(Faults, EachCallCanFailInSomeWay) {
    for (size_t call = 0; call < board::kCalls; ++call) {
        EXPECT_FALSE(waysOf(static_cast<Call>(call)).empty())
            << board::nameOf(static_cast<Call>(call));
    }
}

TEST(Faults, EachExportedFunctionIsAFlow) {
    std::set<std::string> names = {"buffer",
                                   "config_info",
                                   "fd",
                                   "free_routing_topology",
                                   "g_n_lable",
                                   "isp_cmd_arr",
                                   "polynom",
                                   "st_func_offset_map_tab",
                                   "stm_sem",
                                   "str_mcu_type",
                                   "test_option_table",
                                   "HIDL_FETCH_IQuilServiceManager"};
    for (const Flow& flow : everyFlow()) names.insert(flow.name.substr(0, flow.name.find('-')));
    for (const std::string& name : tests::plainNamesOfTheMap()) EXPECT_THAT(names, Contains(name));
}

TEST(Faults, RunsWithOneFailureEndAsTheContractSays) {
    const size_t stride = tests::kSlowed ? 9 : 1;
    EXPECT_THAT(findingsIn(flowNamed("sdk_uart_init"), stride), IsEmpty());
    EXPECT_THAT(findingsIn(flowNamed("fpgaCheckDone"), stride), IsEmpty());
    EXPECT_THAT(findingsIn(flowNamed("get"), 100 * stride), IsEmpty());
    EXPECT_THAT(findingsIn(flowNamed("mcu-update-n32g45x"), 500 * stride), IsEmpty());
}

TEST(Faults, ResultThatTheContractDoesNotSayIsAFinding) {
    Flow flow = flowNamed("sdk_uart_init");
    flow.function->fails.clear();
    EXPECT_THAT(findingsIn(flow, 1), Contains("result: -1 instead of 0"));
}

TEST(Faults, DescriptorThatIsLeftOpenIsAFinding) {
    Flow flow = flowNamed("sdk_uart_write");
    flow.function->cleanUp = nullptr;
    EXPECT_THAT(findingsIn(flow, 3), Contains(testing::StartsWith("held: descriptor")));
}

const CutFlow& cutFlowNamed(const std::string& name) {
    static const std::vector<CutFlow> flows = everyCutFlow(Images::kSmallest);
    return *std::find_if(flows.begin(), flows.end(),
                         [&](const CutFlow& flow) { return flow.name == name; });
}

TEST(Cuts, NamesOfCutsInARowAreReadBack) {
    const CutRow row = {{5, board::CutPosition::kBefore}, {17, board::CutPosition::kInside, 2}};
    EXPECT_EQ(nameOf(row), "5:before,17:inside:2");
    EXPECT_EQ(nameOf(cutRowNamed(nameOf(row))), nameOf(row));
    EXPECT_THROW(cutRowNamed("5:before,"), std::runtime_error);
}

// The sweep judges what a cut would leave without making it; here some are made.
TEST(Cuts, SecondCutsLeaveWhatTheMendingBootTellsOfThem) {
    const swarm::World& world = cutFlowNamed("both-Heron-gd32f470").world;
    size_t compared = 0;
    tests::standardOutputOf([&] {
        Cuts cuts;
        const auto first = cuts.firstStates(world);
        const tests::CutState& start = first[first.size() / 2];
        const auto second = cuts.nextStates(world, start.files);
        constexpr size_t kSamples = tests::kSlowed ? 2 : 4;
        const size_t stride = std::max<size_t>(second.size() / kSamples, 1);
        for (size_t i = 0; i < second.size(); i += stride, ++compared) {
            const CutRow row = {start.first, second[i].first};
            EXPECT_EQ(cuts.leftBy(world, row), second[i].files) << nameOf(row);
            EXPECT_EQ(cuts.replay(world, row), "") << nameOf(row);
            EXPECT_EQ(cuts.mend(world, second[i].files), "") << nameOf(row);
        }
    });
    EXPECT_GT(compared, 1U);
}

}  // namespace
}  // namespace quil::faults
