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
    : board_(board), lines_(lines), flash_(flash), bootsFromFlash_(bootsFromFlash) {
    lines_.control.onEdge([this](int) { linesChanged(); });
    lines_.config.onEdge([this](int) { linesChanged(); });
    flash_.onUse([this] {
        if (lines_.control.level() != 0) violation("the flash is used while PROG_B is high");
    });
}

Fpga::~Fpga() = default;

void Fpga::note(const std::string& text) const { board_.trace.add(EventKind::kNote, "fpga", text); }

void Fpga::violation(const std::string& text, std::span<const uint8_t> bytes) const {
    constexpr size_t kShown = 8;
    const std::string shown = hexOf(bytes.first(std::min(bytes.size(), kShown)));
    board_.violation("fpga", shown.empty() ? text : text + " " + shown);
}

// The FPGA starts faster than the kernel: board time begins when it is configured already.
void Fpga::powerOn() {
    isPowered_ = true;
    if (bootsFromFlash_) takeImage(checkFpgaImage(imageIn(flash_)), kLongAgo);
}

void Fpga::linesChanged() {
    if (!isPowered_) return;
    if (lines_.control.level() == 0) {
        if (configured_ || configuring_) note("cleared by PROG_B");
        clear();
    } else if (lines_.config.level() != 0 && bootsFromFlash_ && !configured_ && !configuring_) {
        beginConfiguration();
    }
}

void Fpga::clear() {
    if (configuring_) board_.scheduler.cancel(*configuring_);
    configuring_.reset();
    configured_ = udp_ = transmitReset_ = receiveReset_ = false;
    version_.clear();
    pages_.clear();
    ddr_.since = clock_.since = negotiation_.since = std::nullopt;
    lines_.done.setLevel(0);
}

void Fpga::beginConfiguration() {
    note("configuration begins");
    const auto size = static_cast<int64_t>(imageIn(flash_).size());
    configuring_ = board_.scheduler.at(now() + kClearing + kConfigureByte * size, [this] {
        configuring_.reset();
        takeImage(checkFpgaImage(imageIn(flash_)), now());
    });
}

void Fpga::takeImage(const FpgaImageCheck& image, Nanos since) {
    problem_ = stuck_ ? "the part is broken" : image.problem;
    if (!problem_.empty()) {
        note("configuration failed: " + problem_);
        return;
    }
    configured_ = true;
    version_ = image.version;
    ddr_.begin(since);
    clock_.begin(since);
    negotiation_.begin(since);
    note("configured with " + version_ + ", " + std::to_string(image.size) + " bytes");
    lines_.done.setLevel(1);
}

std::string Fpga::load(std::span<const uint8_t> image) {
    clear();
    const FpgaImageCheck check = checkFpgaImage(image);
    board_.spendDeviceTime(kClearing + kConfigureByte * static_cast<int64_t>(image.size()),
                           "fpga load");
    takeImage(check, now());
    return problem_;
}

void Fpga::checkOpenMode(int flags) {
    if (flags != O_RDWR) violation("opened with flags " + std::to_string(flags));
}

void Fpga::setDdr(const Readiness& plan) {
    Guard guard(boardLock());
    ddr_.replan(plan, now());
}

void Fpga::setSgmiiClock(const Readiness& plan) {
    Guard guard(boardLock());
    clock_.replan(plan, now());
}

void Fpga::setSgmiiNegotiation(const Readiness& plan) {
    Guard guard(boardLock());
    negotiation_.replan(plan, now());
}

void Fpga::setStuckUnconfigured(bool stuck) {
    Guard guard(boardLock());
    stuck_ = stuck;
    if (stuck) clear();
}

bool Fpga::isConfigured() const {
    Guard guard(boardLock());
    return configured_;
}

std::string Fpga::version() const {
    Guard guard(boardLock());
    return version_;
}

std::string Fpga::problem() const {
    Guard guard(boardLock());
    return problem_;
}

bool Fpga::isUdpMode() const {
    Guard guard(boardLock());
    return udp_;
}

void Fpga::setUdpMode() { udp_ = true; }

}  // namespace quil::board
