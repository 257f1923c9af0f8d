#include "tests/swarm/faults/trial.h"

#include <unistd.h>

#include <map>

#include "testing/library_state.h"
#include "tests/swarm/faults/judge.h"
#include "tests/swarm/judge.h"

namespace quil::faults {

using board::Board;
using board::Nanos;

// One boot with a function in it.
class Trials::FunctionRun {
  public:
    FunctionRun(const Trials& trials, const Flow& flow, std::shared_ptr<const board::Store> factory)
        : mFlow(flow),
          mStore(std::make_shared<board::OverlayStore>(std::move(factory),
                                                       swarm::Ground::keptBefore(flow.world))) {
        if (trials.beforeBoot) trials.beforeBoot();
        board::BoardOptions options;
        options.standstill.tell = trials.onStandstill;
        mBoard = std::make_unique<Board>(mStore, options);
        flow.function->prepare(*mBoard);
    }

    Board& board() { return *mBoard; }
    board::OverlayStore::Files kept() {
        mBoard = nullptr;
        return mStore->written();
    }

    int64_t call(Nanos* took) {
        const Nanos start = mBoard->now();
        const int64_t result = mFlow.function->call(*mBoard);
        *took = mBoard->now() - start;
        mBoard->faults().onCall(nullptr);
        mBoard->faults().clear();
        if (mFlow.function->cleanUp != nullptr) mFlow.function->cleanUp(*mBoard);
        return result;
    }

    // Only a port that cannot be made blocking stays open, as its callers know.
    std::string problemOfDescriptors(const board::Fault* fault) {
        constexpr int kDescriptors = 256;
        const bool mayBeLeft = fault != nullptr && fault->call == Call::kFcntl;
        std::string problem;
        for (int descriptor = 0; descriptor < kDescriptors; ++descriptor) {
            if (!mBoard->isOpen(descriptor)) continue;
            if (!mayBeLeft) problem = "held: descriptor " + std::to_string(descriptor);
            close(descriptor);
        }
        return problem;
    }

  private:
    const tests::FreshLibrary mLibrary;
    const Flow& mFlow;
    const std::shared_ptr<board::OverlayStore> mStore;
    std::unique_ptr<Board> mBoard;
};

void Trials::recordInto(Board& board, Recording& recording) const {
    board.faults().onCall([&recording, counts = std::map<std::pair<Call, std::string>, int>()](
                              Call call, std::string_view path) mutable {
        const std::string name(path);
        recording.sites.push_back({call, name, counts[{call, name}]++});
    });
}

swarm::RunOptions Trials::options() const {
    swarm::RunOptions options;
    options.beforeBoot = beforeBoot;
    options.onStandstill = onStandstill;
    options.hashesTraces = false;
    return options;
}

Recording Trials::record(const Flow& flow) {
    Recording recording;
    if (flow.function) {
        FunctionRun run(*this, flow, mGround.factoryOf(flow.world.product));
        recordInto(run.board(), recording);
        recording.result = run.call(&recording.took);
        recording.finding = run.problemOfDescriptors(nullptr);
        if (recording.finding.empty() && !run.board().violations().empty()) {
            recording.finding = "violation: " + run.board().violations().front();
        }
        return recording;
    }
    swarm::RunOptions hooks = options();
    bool isFirst = true;
    hooks.onPower = [&](Board& board) {
        if (isFirst) recordInto(board, recording);
    };
    hooks.onDone = [&](Board& board) {
        board.faults().onCall(nullptr);
        board.faults().clear();
        if (isFirst) recording.took = board.now();
        isFirst = false;
    };
    recording.finding = swarm::run(flow.world, mGround, hooks).finding;
    return recording;
}

std::string Trials::runWorld(const Flow& flow, const Recording& clean, const board::Fault& fault) {
    swarm::World world = flow.world;
    world.boots.front().faults = {fault};
    swarm::RunOptions hooks = options();
    std::string problem;
    bool isFirst = true;
    hooks.onDone = [&](Board& board) {
        if (isFirst) problem = problemOfBoot(flow, clean, fault, board, board.now());
        isFirst = false;
    };
    const std::string finding = swarm::run(world, mGround, hooks).finding;
    return problem.empty() ? finding : problem;
}

// Of the boot behind the one with the failure.
std::string Trials::mend(const Flow& flow, const board::OverlayStore::Files& kept) {
    if (mMended.count({flow.name, kept}) > 0) return "";
    swarm::RunOptions hooks = options();
    hooks.kept = &kept;
    std::string finding = swarm::run(flow.world, mGround, hooks).finding;
    if (finding.empty()) mMended.insert({flow.name, kept});
    return finding;
}

std::string Trials::runFunction(const Flow& flow, const Recording& clean, const Site& site,
                                const Way& way) {
    const board::Fault fault = faultAt(site, way);
    const swarm::Held before = swarm::Held::now();
    std::string problem;
    board::OverlayStore::Files kept;
    {
        FunctionRun run(*this, flow, mGround.factoryOf(flow.world.product));
        run.board().faults().add(fault);
        Nanos took{0};
        const int64_t result = run.call(&took);
        const std::string held = run.problemOfDescriptors(&fault);
        problem = problemOfBoot(flow, clean, fault, run.board(), took);
        if (problem.empty()) problem = problemOfResult(flow, clean, site, way, result);
        if (problem.empty()) problem = held;
        kept = run.kept();
    }
    const std::string held = before.differenceTo(swarm::Held::now());
    if (problem.empty() && !held.empty()) problem = "held: " + held;
    return problem.empty() ? mend(flow, kept) : problem;
}

std::string Trials::run(const Flow& flow, const Recording& clean, const Site& site,
                        const Way& way) {
    return flow.function ? runFunction(flow, clean, site, way)
                         : runWorld(flow, clean, faultAt(site, way));
}

}  // namespace quil::faults
