#include "board/fpga/fpga.h"

#include <fcntl.h>

#include <algorithm>

#include "board/core/bytes.h"

namespace quil::board {
namespace {

constexpr Nanos kLongAgo = -std::chrono::hours(1);

// The image in the flash, with the length that its header gives.
std::vector<uint8_t> imageIn(const SerialFlash& flash) {
    constexpr size_t kHeader = 32;
    const size_t size = checkFpgaImage(flash.read(0, kHeader)).size;
    return flash.read(0, std::max(size, kHeader));
}

}  // namespace

void Fpga::Progress::begin(Nanos now) {
    since = now;
    ++begun;
}

void Fpga::Progress::replan(const Readiness& to, Nanos now) {
    plan = to;
    begun = 0;
    if (since) begin(now);
}

uint8_t Fpga::Progress::value(Nanos now) const {
    const bool fails = plan.failures < 0 || begun <= plan.failures;
    return since && !fails && now - *since >= plan.after ? 1 : plan.notReady;
}

Fpga::Fpga(BoardServices& board, Lines lines, SerialFlash& flash, bool bootsFromFlash)
    : mBoard(board), mLines(lines), mFlash(flash), mBootsFromFlash(bootsFromFlash) {
    mBoard.trace.onClear([this] { mTransactions.clear(); });
    mLines.control.onEdge([this](int) { linesChanged(); });
    mLines.config.onEdge([this](int) { linesChanged(); });
    mFlash.onUse([this] {
        if (mLines.control.level() != 0) violation("the flash is used while PROG_B is high");
    });
}

Fpga::~Fpga() = default;

void Fpga::note(const std::string& text) const { mBoard.trace.add(EventKind::kNote, "fpga", text); }

void Fpga::violation(const std::string& text, std::span<const uint8_t> bytes) const {
    constexpr size_t kShown = 8;
    const std::string shown = hexOf(bytes.first(std::min(bytes.size(), kShown)));
    mBoard.violation("fpga", shown.empty() ? text : text + " " + shown);
}

// The FPGA starts faster than the kernel: board time begins when it is configured already.
void Fpga::powerOn() {
    mIsPowered = true;
    if (mBootsFromFlash) takeImage(checkFpgaImage(imageIn(mFlash)), kLongAgo);
}

void Fpga::linesChanged() {
    if (!mIsPowered) return;
    if (mLines.control.level() == 0) {
        if (mConfigured || mConfiguring) note("cleared by PROG_B");
        clear();
    } else if (mLines.config.level() != 0 && mBootsFromFlash && !mConfigured && !mConfiguring) {
        beginConfiguration();
    }
}

void Fpga::clear() {
    if (mConfiguring) mBoard.scheduler.cancel(*mConfiguring);
    mConfiguring.reset();
    mConfigured = mUdp = mTransmitReset = mReceiveReset = false;
    mVersion.clear();
    mPages.clear();
    mDdr.since = mClock.since = mNegotiation.since = std::nullopt;
    mLines.done.setLevel(0);
}

void Fpga::beginConfiguration() {
    note("configuration begins");
    const auto size = static_cast<int64_t>(imageIn(mFlash).size());
    mConfiguring = mBoard.scheduler.at(now() + kClearing + kConfigureByte * size, [this] {
        mConfiguring.reset();
        takeImage(checkFpgaImage(imageIn(mFlash)), now());
    });
}

void Fpga::takeImage(const FpgaImageCheck& image, Nanos since) {
    mProblem = mStuck ? "the part is broken" : image.problem;
    if (!mProblem.empty()) {
        note("configuration failed: " + mProblem);
        return;
    }
    mConfigured = true;
    mVersion = image.version;
    mDdr.begin(since);
    mClock.begin(since);
    mNegotiation.begin(since);
    note("configured with " + mVersion + ", " + std::to_string(image.size) + " bytes");
    mLines.done.setLevel(1);
}

std::string Fpga::load(std::span<const uint8_t> image) {
    clear();
    const FpgaImageCheck check = checkFpgaImage(image);
    mBoard.spendDeviceTime(kClearing + kConfigureByte * static_cast<int64_t>(image.size()),
                           "fpga load");
    takeImage(check, now());
    return mProblem;
}

void Fpga::checkOpenMode(int flags) {
    if (flags != O_RDWR) violation("opened with flags " + std::to_string(flags));
}

void Fpga::setDdr(const Readiness& plan) {
    Guard guard(boardLock());
    mDdr.replan(plan, now());
}

void Fpga::setSgmiiClock(const Readiness& plan) {
    Guard guard(boardLock());
    mClock.replan(plan, now());
}

void Fpga::setSgmiiNegotiation(const Readiness& plan) {
    Guard guard(boardLock());
    mNegotiation.replan(plan, now());
}

void Fpga::setStuckUnconfigured(bool stuck) {
    Guard guard(boardLock());
    mStuck = stuck;
    if (stuck) clear();
}

bool Fpga::isConfigured() const {
    Guard guard(boardLock());
    return mConfigured;
}

std::string Fpga::version() const {
    Guard guard(boardLock());
    return mVersion;
}

std::string Fpga::problem() const {
    Guard guard(boardLock());
    return mProblem;
}

bool Fpga::isUdpMode() const {
    Guard guard(boardLock());
    return mUdp;
}

void Fpga::setUdpMode() { mUdp = true; }

}  // namespace quil::board
