#include "tests/swarm/run.h"

#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "host/hosting_component.h"
#include "testing/library_state.h"
#include "tests/swarm/clients.h"
#include "tests/swarm/judge.h"
#include "tests/swarm/oracle/registry.h"

namespace quil::swarm {
namespace {

using board::Call;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

// From the end of a hosting component to the next one's start.
constexpr Nanos kRestart = milliseconds(100);
// A clean boot brings up the MCU and the FPGA, and its clients wait for each other meanwhile.
constexpr Nanos kCleanBootMost = minutes(30);

// FNV-1a. A descriptor's number depends on what else the process has open.
uint64_t hashOf(uint64_t hash, std::string_view text) {
    constexpr std::string_view kBeforeDescriptors[] = {"fd = ", "fd("};
    while (!text.empty()) {
        hash = (hash ^ static_cast<uint8_t>(text.front())) * 0x100000001B3;
        size_t skipped = 1;
        for (const std::string_view before : kBeforeDescriptors) {
            if (text.front() != 'f' || text.substr(0, before.size()) != before) continue;
            skipped = std::min(text.find_first_not_of("-0123456789", before.size()), text.size());
        }
        text.remove_prefix(skipped);
    }
    return hash;
}

board::BoardOptions optionsOf(const Boot& boot, const RunOptions& options) {
    board::BoardOptions board{.seed = boot.seed, .pct = boot.pct, .chances = boot.chances};
    board.drawnSteps = boot.drawnSteps;
    board.standstill.tell = options.onStandstill;
    return board;
}

// One power cycle.
class BootRun {
  public:
    BootRun(const World& world, const Boot& boot, board::Board& board, Outcome& outcome)
        : mWorld(world), mBoot(boot), mBoard(board), mOutcome(outcome) {
        prepareMcu();
        for (const board::Fault& fault : boot.faults) mBoard.faults().add(fault);
        for (const Disturbance& disturbance : boot.disturbances) disturb(disturbance);
        if (boot.noise.flipped + boot.noise.dropped + boot.noise.doubled > 0) {
            mBoard.mcuUart().addNoise(boot.seed, boot.noise);
        }
        if (boot.cut) mBoard.cutPowerAt(*boot.cut);
    }

    void run() {
        for (const Session& session : mBoot.sessions) {
            if (&session != &mBoot.sessions.front()) mBoard.runFor(kRestart);
            if (session.isNewProcess) tests::FreshLibrary::reset();
            if (mBoot.networkIsUp) tests::networkIsUp();
            runSession(session);
        }
        closeWhatIsLeft();
        find(problemOfBoot(mBoot, mBoard, mWorld.isDescribed()));
    }

  private:
    bool isLast() const { return &mBoot == &mWorld.boots.back(); }
    void find(const std::string& problem) {
        if (mOutcome.finding.empty()) mOutcome.finding = problem;
    }
    void find(const std::string& kind, const std::string& problem) {
        if (!problem.empty()) find(kind + ": " + problem);
    }

    // A process that ends leaves nothing open. One that lives has to close it; what it opens itself
    // is left when the call that makes it blocking fails, as its callers know.
    void closeWhatIsLeft() {
        constexpr int kDescriptors = 256;
        bool mayBeLeft = mBoard.powerIsCut();
        for (const board::Fault& fault : mBoot.faults) mayBeLeft |= fault.call == Call::kFcntl;
        for (int fd = 0; fd < kDescriptors; ++fd) {
            if (!mBoard.isOpen(fd)) continue;
            if (!mayBeLeft) find("held: descriptor " + std::to_string(fd) + " of the board");
            close(fd);
        }
    }

    void prepareMcu() {
        for (const Session& session : mBoot.sessions) {
            for (const Client& client : session.clients) {
                for (const Operation& operation : client.operations) {
                    mBoard.mcu().setAnswer(mcuCommandOf(operation), answerOf(operation));
                }
            }
        }
    }

    void disturb(const Disturbance& disturbance) {
        using Kind = Disturbance::Kind;
        board::Board& board = mBoard;
        const auto at = [&](std::function<void()> action) {
            board.after(disturbance.at, std::move(action));
        };
        switch (disturbance.kind) {
            case Kind::kMcuReset:
                at([&board] { board.gpio().at(board::kGpioNrst).drive(0); });
                return board.after(disturbance.at + milliseconds(1),
                                   [&board] { board.gpio().at(board::kGpioNrst).drive(1); });
            case Kind::kLateAnswer:
                return at([&board] {
                    board.mcuUart().addFault({.kind = board::LineFault::Kind::kLate,
                                              .fromHost = false,
                                              .delay = seconds(6)});
                });
            case Kind::kMcuFallsSilent:
                return at([&board] { board.mcu().setSilent(true); });
            case Kind::kMcuSpeaksAgain:
                return at([&board] { board.mcu().setSilent(false); });
            case Kind::kUnasked:
                return at([&board] { board.mcu().sendUnsolicited({0xEE, 0xEE}, 0xEE); });
        }
    }

    void runSession(const Session& session) {
        Recorder recorder(mBoard);
        {
            Clients clients(mBoard, recorder);
            host::HostingComponent host;
            const host::StartUpResult result = host.start(jobsOf(session, clients, recorder));
            clients.wait();
            if (isLast() && mWorld.isDescribed()) judgeClean(host, result);
            host.stop();
        }
        judge(recorder.history());
    }

    host::BootJobs jobsOf(const Session& session, Clients& clients, Recorder& recorder) {
        host::BootJobs jobs{.updateMcu = session.updateMcu, .loadFpga = session.loadFpga};
        if (session.requestsAtOnce > 0) jobs.requestsAtOnce = session.requestsAtOnce;
        jobs.watch = [&](const android::sp<IQuilServiceManager>& service) {
            return android::sp<IQuilServiceManager>(new Witness(service, recorder));
        };
        jobs.letClientsIn = [&](const android::sp<IQuilServiceManager>& service) {
            clients.start(session, service);
            return true;
        };
        return jobs;
    }

    void judge(const History& history) {
        ++mOutcome.tally.sessions;
        mOutcome.tally.calls += history.size();
        const MailboxRules rules{.sendMayFail = !mBoot.linkIsClean()};
        find("answer", problemOfAnswers(history, rules, &mOutcome.tally.answers));
        find("registry", problemOfRegistry(history, &mOutcome.tally.undecided));
    }

    void judgeClean(const host::HostingComponent& host, const host::StartUpResult& result) {
        if (!result.ok()) return find("mending", result.text);
        if (mBoard.now() > kCleanBootMost) find("time", "the clean boot takes half an hour");
        mBoard.runFor(milliseconds(100));
        find("mending", problemOfCleanBoot(mWorld, mBoard, host));
        find("mending", problemOfRequests(host.service()));
    }

    // Of a service at rest: each answer is the request's own.
    std::string problemOfRequests(const android::sp<IQuilServiceManager>& service) {
        const Operation drain{.act = Act::kLowPower, .number = 1U << 20};
        const Operation get{.act = Act::kGet, .number = (1U << 20) + 1};
        mBoard.mcu().setAnswer(mcuCommandOf(get), answerOf(get));
        Bytes answer;
        const auto keep = [&](const hidl_vec<uint8_t>& bytes) { answer = bytes; };
        static_cast<void>(service->get(requestOf(drain), keep).isOk());
        static_cast<void>(service->get(requestOf(get), keep).isOk());
        if (answer != answerOf(get)) return "a get at rest is not answered with its own answer";
        static_cast<void>(service->set(requestOf(drain), keep).isOk());
        return answer.empty() ? "" : "a power mode at rest has an answer";
    }

    const World& mWorld;
    const Boot& mBoot;
    board::Board& mBoard;
    Outcome& mOutcome;
};

}  // namespace

Outcome run(const World& world, Ground& ground, const RunOptions& options) {
    Outcome outcome;
    const Held before = Held::now();
    const auto factory = ground.factoryOf(world.product);
    board::OverlayStore::Files kept = options.kept ? *options.kept : Ground::keptBefore(world);
    for (const Boot& boot : world.boots) {
        const tests::FreshLibrary library;
        if (options.beforeBoot) options.beforeBoot();
        const auto store = std::make_shared<board::OverlayStore>(factory, kept);
        {
            board::Board board(store, optionsOf(boot, options));
            if (options.onPower) options.onPower(board);
            BootRun(world, boot, board, outcome).run();
            if (options.onDone) options.onDone(board);
            const bool isWanted = options.hashesTraces || options.onTrace;
            const std::string trace = isWanted ? board.trace().toText() : "";
            outcome.traceHash = hashOf(outcome.traceHash, trace);
            if (options.onTrace) options.onTrace(trace);
            ++outcome.tally.boots;
            outcome.tally.cuts += board.powerIsCut() ? 1 : 0;
        }
        kept = store->written();
    }
    outcome.kept = std::move(kept);
    const std::string held = before.differenceTo(Held::now());
    if (outcome.finding.empty() && !held.empty()) outcome.finding = "held: " + held;
    return outcome;
}

}  // namespace quil::swarm
