// A seed decides in which order threads run: it finds races, and repeats them.
#include "board/core/schedule.h"

#include <array>
#include <mutex>
#include <thread>

#include "board/core/store.h"
#include "board/core/temporary_directory.h"
#include "fpga/load_process.h"
#include "testing/client_scenario.h"
#include "testing/slowed.h"

namespace quil::tests {
namespace {

using board::Board;
using board::BoardOptions;
using board::Pct;
using board::Product;
using testing::ElementsAre;
using testing::IsEmpty;

// One directory serves all boards of this file: nothing is written to it.
const std::filesystem::path& sharedDirectory() {
    static const board::TemporaryDirectory directory;
    static const bool made = (board::createBoardDirectory(directory.path(), Product::kHeron), true);
    EXPECT_TRUE(made);
    return directory.path();
}

BoardOptions scheduledBy(uint64_t seed, const Pct& pct = {}) {
    return {.seed = seed,
            .pct = pct,
            .store = std::make_shared<board::OverlayStore>(sharedDirectory())};
}

// Each of two threads adds 1 in two steps, each under the lock; the sum is 2 unless one thread
// runs between the steps of the other.
int sumOfTwoThreads(const BoardOptions& options) {
    Board board(sharedDirectory(), options);
    std::mutex mutex;
    int sum = 0;
    const auto addOne = [&] {
        mutex.lock();
        const int former = sum;
        mutex.unlock();
        mutex.lock();
        sum = former + 1;
        mutex.unlock();
    };
    std::thread first(addOne), second(addOne);
    first.join();
    second.join();
    return sum;
}

std::vector<uint64_t> seedsThatLoseAnUpdate(uint64_t last, const Pct& pct = {}) {
    std::vector<uint64_t> seeds;
    for (uint64_t seed = 1; seed <= last; ++seed) {
        if (sumOfTwoThreads(scheduledBy(seed, pct)) != 2) seeds.push_back(seed);
    }
    return seeds;
}

TEST(BoardSchedule, LostUpdateIsFoundByARandomWalkAndByPctOfItsDepthAndNeverBySeed0) {
    EXPECT_EQ(sumOfTwoThreads(scheduledBy(0)), 2);
    EXPECT_THAT(seedsThatLoseAnUpdate(8), ElementsAre(1, 4, 5, 6, 8));
    EXPECT_THAT(seedsThatLoseAnUpdate(30, {.depth = 1, .steps = 10}), IsEmpty());
    EXPECT_THAT(seedsThatLoseAnUpdate(30, {.depth = 2, .steps = 10}),
                ElementsAre(5, 9, 19, 21, 25, 26, 28, 29));
}

// FNV-1a.
uint64_t traceHash(const std::string& text) {
    uint64_t hash = 0xCBF29CE484222325;
    for (const char c : text) hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001B3;
    return hash;
}

std::string traceOfABoot(const BoardOptions& options) {
    const FreshLibrary library;
    Board board(sharedDirectory(), options);
    networkIsUp();
    host::HostingComponent host;
    standardOutputOf([&] { host.start({.loadFpga = true}); });
    host.stop();
    return board.trace().toText();
}

std::string traceOfClients(const BoardOptions& options) {
    const FreshLibrary library;
    Board board(sharedDirectory(), options);
    ClientScenario clients;
    standardOutputOf([&] { EXPECT_EQ(clients.run(board), ""); });
    return board.trace().toText();
}

struct Recorded {
    uint64_t seed;
    Pct pct;
    uint64_t boot, clients;
};
constexpr std::array<Recorded, 3> kRecorded = {{
    {0, {}, 16051537751663033870U, 7862842158521372907U},
    {1, {}, 17730227540715447899U, 5897132024641359582U},
    {2, {.depth = 3, .steps = 500}, 6681982908712003344U, 7999046784138301221U},
}};

// The same on every machine, or a failure that one finds could not be repeated on another.
TEST(BoardSchedule, TracesOfBootAndClientsAreThoseOfEveryCompilerAndWordSize) {
    for (const Recorded& recorded : kRecorded) {
        SCOPED_TRACE("seed " + std::to_string(recorded.seed) + ", depth " +
                     std::to_string(recorded.pct.depth));
        const std::string boot = traceOfABoot(scheduledBy(recorded.seed, recorded.pct));
        const std::string clients = traceOfClients(scheduledBy(recorded.seed, recorded.pct));
        EXPECT_EQ(traceHash(boot), recorded.boot) << boot;
        EXPECT_EQ(traceHash(clients), recorded.clients) << clients;
    }
}

// As many as the variable QUIL_SEEDS says.
uint64_t seedsToRun() {
    const char* text = getenv("QUIL_SEEDS");
    if (text != nullptr) return strtoull(text, nullptr, 10);
    return kSlowed ? 5 : 30;
}

// Returns how many requests were answered.
int answersOfClients(const board::ChanceRates& rates) {
    const uint64_t seeds = seedsToRun();
    int answered = 0;
    for (uint64_t seed = 1; seed <= seeds; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const FreshLibrary library;
        BoardOptions options = scheduledBy(seed, {.depth = seed % 2 == 0 ? 3U : 0U, .steps = 500});
        options.chances = rates;
        Board board(sharedDirectory(), options);
        ClientScenario clients;
        standardOutputOf([&] { EXPECT_EQ(clients.run(board), ""); });
        answered += clients.answered();
    }
    return answered;
}

TEST(BoardSchedule, ClientsGetWholeAnswersAndEveryBroadcastInTheOrderOfAnySeed) {
    EXPECT_GT(answersOfClients({}), 0);
}

// Without short transfers: a request that is written in part is lost, and nothing notices, which
// clients know.
TEST(BoardSchedule, ClientsGetThemWhenCallsAreInterruptedWaitsEndEarlyAndTheClockIsSet) {
    const board::ChanceRates rates = {
        .spuriousWakeUps = 300'000, .interruptions = 100'000, .clockSteps = 300'000};
    EXPECT_GT(answersOfClients(rates), 0);
}

}  // namespace
}  // namespace quil::tests
