// From a seed to its world. Each world has only some of the features: with all of them in each,
// most would hide what the others do.
#include <chrono>

#include "tests/swarm/world.h"

namespace quil::swarm {
namespace {

using board::Call;
using board::Random;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr unsigned kClientsMost = 16, kOperationsMost = 6;

class Draw {
  public:
    explicit Draw(uint64_t seed, const char* what = "world") : mRandom(seed, what) {}

    bool oneIn(uint64_t n) { return mRandom.below(n) == 0; }
    uint64_t upTo(uint64_t most) { return mRandom.below(most + 1); }
    // Small numbers are as probable as large ones.
    uint64_t ofAnySize(uint64_t most) { return upTo(most >> upTo(bitsOf(most))); }
    Nanos time(Nanos most) { return Nanos(ofAnySize(static_cast<uint64_t>(most.count()))); }
    uint32_t rate(uint32_t most) { return static_cast<uint32_t>(1 + ofAnySize(most)); }
    template <typename T, size_t N>
    const T& of(const T (&choices)[N]) {
        return choices[mRandom.below(N)];
    }
    uint64_t seed() { return mRandom.next() | 1; }

  private:
    static unsigned bitsOf(uint64_t number) {
        unsigned bits = 0;
        for (; number > 1; number >>= 1) ++bits;
        return bits;
    }
    Random mRandom;
};

// Which features the boots of a world have.
struct Features {
    bool pct, spurious, interruptions, shorts, clock, noise, faults, disturbances, cuts, restarts,
        limit, reactions;
    unsigned clients;
    std::vector<Act> acts;
};

constexpr Act kEveryAct[] = {
    Act::kGet,      Act::kSet,         Act::kSelfTest,       Act::kSetSelfTest,
    Act::kLowPower, Act::kNormalPower, Act::kUnknownCommand, Act::kTooShort,
    Act::kRegister, Act::kUnregister,  Act::kInvoke,         Act::kDebug,
    Act::kWakeUp};

Features drawFeatures(Draw& draw) {
    Features features{};
    for (bool Features::*feature : {&Features::pct, &Features::spurious, &Features::interruptions,
                                    &Features::restarts, &Features::reactions}) {
        features.*feature = draw.oneIn(2);
    }
    for (bool Features::*feature :
         {&Features::shorts, &Features::clock, &Features::noise, &Features::faults,
          &Features::disturbances, &Features::cuts, &Features::limit}) {
        features.*feature = draw.oneIn(3);
    }
    if (!draw.oneIn(6))
        features.clients = 1 + static_cast<unsigned>(draw.ofAnySize(kClientsMost - 1));
    for (const Act act : kEveryAct) {
        if (draw.oneIn(2)) features.acts.push_back(act);
    }
    if (features.acts.empty()) features.acts.push_back(Act::kGet);
    return features;
}

// None, one of any size, or one that reaches behind the updates and loads of a boot.
Nanos drawPause(Draw& draw) {
    switch (draw.upTo(3)) {
        case 0:
            return draw.time(std::chrono::seconds(8));
        case 1:
            return Nanos(draw.upTo(60'000) * 1'000'000);
        default:
            return Nanos(0);
    }
}

Operation drawOperation(Draw& draw, const Features& features, uint32_t number) {
    constexpr Reaction kReactions[] = {Reaction::kWakesUp,   Reaction::kInvokes,
                                       Reaction::kRegisters, Reaction::kUnregisters,
                                       Reaction::kDies,      Reaction::kWaits};
    Operation operation;
    operation.act = features.acts[draw.upTo(features.acts.size() - 1)];
    if (features.reactions && draw.oneIn(3)) operation.reaction = draw.of(kReactions);
    operation.pause = drawPause(draw);
    operation.number = number;
    return operation;
}

Session drawSession(Draw& draw, const Features& features, uint32_t* numbers) {
    Session session;
    session.updateMcu = !draw.oneIn(4);
    session.loadFpga = draw.oneIn(2);
    session.isNewProcess = !draw.oneIn(4);
    if (features.limit) session.requestsAtOnce = 1 + static_cast<unsigned>(draw.upTo(3));
    for (unsigned i = 0; i < features.clients; ++i) {
        Client client;
        const uint64_t count = 1 + draw.ofAnySize(kOperationsMost - 1);
        for (uint64_t n = 0; n < count; ++n) {
            client.operations.push_back(drawOperation(draw, features, ++*numbers));
        }
        session.clients.push_back(client);
    }
    return session;
}

struct FaultRow {
    Call call;
    int errors[2];
    bool isShort, isLost;
};
constexpr FaultRow kFaults[] = {
    {Call::kOpen, {ENOENT, EACCES}, false, false},
    {Call::kRead, {EIO, EAGAIN}, true, false},
    {Call::kWrite, {EIO, ENOSPC}, true, false},
    {Call::kClose, {EIO, EINTR}, false, false},
    {Call::kSelect, {EBADF, EINTR}, false, false},
    {Call::kFcntl, {EBADF, EINVAL}, false, false},
    {Call::kTcgetattr, {EIO, ENOTTY}, false, false},
    {Call::kTcsetattr, {EIO, EINTR}, false, false},
    {Call::kTcflush, {EIO, EINTR}, false, false},
    {Call::kAccess, {ENOENT, EACCES}, false, false},
    {Call::kStat, {ENOENT, EACCES}, false, false},
    {Call::kFopen, {ENOENT, EMFILE}, false, false},
    {Call::kRemove, {ENOENT, EACCES}, false, false},
    {Call::kSystem, {ENOMEM, EAGAIN}, false, false},
    {Call::kMalloc, {ENOMEM, ENOMEM}, false, false},
    {Call::kProbe, {EIO, ENODEV}, false, false},
    {Call::kGpioSet, {EIO, EINVAL}, false, false},
    {Call::kGpioGet, {EIO, EINVAL}, false, false},
    {Call::kFlashErase, {EIO, EIO}, false, false},
    {Call::kFlashProgram, {EIO, EIO}, false, false},
    {Call::kVendor, {EIO, ENODEV}, false, false},
};

board::Fault drawFault(Draw& draw) {
    const FaultRow& row = draw.of(kFaults);
    board::Fault fault{.call = row.call};
    fault.error = draw.of(row.errors);
    if (row.isShort && draw.oneIn(2)) fault.shortTo = draw.ofAnySize(64);
    fault.after = static_cast<int>(draw.ofAnySize(200));
    fault.times = 1 + static_cast<int>(draw.ofAnySize(7));
    return fault;
}

Disturbance drawDisturbance(Draw& draw) {
    using Kind = Disturbance::Kind;
    constexpr Kind kKinds[] = {Kind::kMcuReset, Kind::kLateAnswer, Kind::kMcuFallsSilent,
                               Kind::kMcuSpeaksAgain, Kind::kUnasked};
    return {draw.of(kKinds), draw.time(std::chrono::seconds(30))};
}

board::PowerCut drawCut(Draw& draw) {
    constexpr board::CutPosition kPositions[] = {
        board::CutPosition::kBefore, board::CutPosition::kInside, board::CutPosition::kAfter};
    board::PowerCut cut{};
    cut.event = 1 + draw.ofAnySize(1'000);
    cut.position = draw.of(kPositions);
    if (cut.position == board::CutPosition::kInside) cut.tear = static_cast<unsigned>(draw.upTo(3));
    return cut;
}

void drawChances(Draw& draw, const Features& features, Boot& boot) {
    if (features.spurious) boot.chances.spuriousWakeUps = draw.rate(500'000);
    if (features.interruptions) boot.chances.interruptions = draw.rate(200'000);
    if (features.shorts) boot.chances.shortTransfers = draw.rate(200'000);
    if (features.clock) boot.chances.clockSteps = draw.rate(500'000);
    if (features.noise) boot.noise = {draw.rate(2'000), draw.rate(2'000), draw.rate(2'000)};
}

void drawOrder(Draw& draw, const Features& features, Boot& boot) {
    boot.seed = draw.seed();
    if (!features.pct) return;
    boot.pct.depth = 1 + static_cast<unsigned>(draw.upTo(5));
    boot.pct.steps = 10 + draw.ofAnySize(2'000);
}

Boot drawBoot(Draw& draw, const Features& features, uint32_t* numbers) {
    Boot boot;
    drawOrder(draw, features, boot);
    drawChances(draw, features, boot);
    for (uint64_t n = features.faults ? 1 + draw.ofAnySize(5) : 0; n > 0; --n) {
        boot.faults.push_back(drawFault(draw));
    }
    for (uint64_t n = features.disturbances ? 1 + draw.ofAnySize(5) : 0; n > 0; --n) {
        boot.disturbances.push_back(drawDisturbance(draw));
    }
    if (features.cuts && !draw.oneIn(3)) boot.cut = drawCut(draw);
    boot.networkIsUp = !draw.oneIn(6);
    boot.sessions.push_back(drawSession(draw, features, numbers));
    while (features.restarts && draw.oneIn(2)) {
        boot.sessions.push_back(drawSession(draw, features, numbers));
    }
    return boot;
}

// Everything works, and everything is brought up; clients are there as well.
Boot drawCleanBoot(Draw& draw, Features features, uint32_t* numbers) {
    Boot boot;
    drawOrder(draw, features, boot);
    if (features.clients > 3) features.clients = 3;
    Session session = drawSession(draw, features, numbers);
    session.updateMcu = session.loadFpga = session.isNewProcess = true;
    boot.sessions.push_back(session);
    return boot;
}

std::string drawParts(Draw& draw) {
    constexpr const char* kParts[] = {"rtc",     "es8316",   "es8316.0",
                                      "wifi-ap", "wifi-sta", "idt6965"};
    std::string text;
    if (draw.oneIn(2)) return text;
    for (const char* part : kParts) {
        if (!draw.oneIn(3)) continue;
        text.append(part).append(draw.oneIn(2) ? " = faulty\n" : " = absent\n");
    }
    constexpr const char* kCards[] = {"missing", "full", "read-only"};
    if (draw.oneIn(3)) text.append("sdcard = ").append(draw.of(kCards)).append("\n");
    return text;
}

ProductFile drawProductFile(uint64_t seed) {
    constexpr ProductFile kFiles[] = {ProductFile::kOtherLook, ProductFile::kOtherLook,
                                      ProductFile::kLineLost,  ProductFile::kValueWrong,
                                      ProductFile::kCutOff,    ProductFile::kNoise};
    Draw draw(seed, "product file");
    return draw.oneIn(3) ? draw.of(kFiles) : ProductFile::kFactory;
}

void drawProduct(Draw& draw, World& world) {
    using board::McuKind;
    using board::Product;
    constexpr Product kProducts[] = {Product::kHeron, Product::kKestrel, Product::kWrenT507};
    constexpr McuKind kMcus[] = {McuKind::kGd32F303, McuKind::kGd32F470, McuKind::kGd32E503,
                                 McuKind::kStm32H750, McuKind::kN32G45x};
    constexpr const char* kLevels[] = {"E", "E", "E", "E", "E", "I", "D", "W"};
    constexpr const char* kItems[] = {"1-2-3-5", "1-3-4-5", "1-2-3-4-5-6-7-8-9", "9",
                                      "",        "-",       "1-0-12-x-3"};
    constexpr const char* kCodecs[] = {"0", "1", "2", "x", "-1"};
    constexpr Screen kScreens[] = {Screen::kFactory, Screen::kFactory, Screen::kFactory,
                                   Screen::kMissing, Screen::kEmpty,   Screen::kTruncated,
                                   Screen::kNoise};
    world.product = draw.of(kProducts);
    world.part = draw.of(kMcus);
    world.mcuImage = 0x228 + 4 * draw.ofAnySize(900);
    // Sizes that its update cannot program: it leaves a page of which the image takes only a part
    // as it is, or the last 128 bytes of an image that has just so many blocks of them.
    if (world.part == McuKind::kGd32F303 && world.mcuImage > 2048) world.mcuImage &= ~size_t{2047};
    if (world.part == McuKind::kN32G45x && world.mcuImage % 128 == 0) world.mcuImage += 4;
    world.fpgaImage = 1024 + draw.ofAnySize(20'000);
    world.mcuIsOlder = draw.oneIn(2);
    world.mcuIsBlank = draw.oneIn(8);
    world.fpgaIsPending = draw.oneIn(2);
    world.screen = draw.of(kScreens);
    world.productFile = drawProductFile(world.seed);
    world.logLevel = draw.of(kLevels);
    world.selfTestItems = draw.of(kItems);
    world.codecs = draw.of(kCodecs);
    world.parts = drawParts(draw);
}

}  // namespace

bool Boot::linkIsClean() const {
    return faults.empty() && disturbances.empty() && chances.shortTransfers == 0 &&
           chances.interruptions == 0 && noise.flipped + noise.dropped + noise.doubled == 0;
}

World worldOf(uint64_t seed) {
    Draw draw(seed);
    World world;
    world.seed = seed;
    drawProduct(draw, world);
    uint32_t numbers = 0;
    const Features features = drawFeatures(draw);
    const uint64_t boots = 1 + draw.ofAnySize(features.cuts ? 3 : 1);
    for (uint64_t n = 0; n < boots; ++n) world.boots.push_back(drawBoot(draw, features, &numbers));
    world.boots.push_back(drawCleanBoot(draw, features, &numbers));
    return world;
}

}  // namespace quil::swarm
