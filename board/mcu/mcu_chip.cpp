#include "board/mcu/mcu_chip.h"

#include "board/devices/ini_reader.h"

namespace quil::board {
namespace {

constexpr char kFlashFile[] = "mcu/flash";

}  // namespace

const char* nameOf(McuChip::State state) {
    switch (state) {
        case McuChip::State::kInReset:
            return "in reset";
        case McuChip::State::kStarting:
            return "starting";
        case McuChip::State::kBootLoader:
            return "boot loader";
        case McuChip::State::kApplication:
            return "application";
        case McuChip::State::kNoImage:
            return "no image";
        case McuChip::State::kElsewhere:
            return "elsewhere";
    }
    return "";
}

McuChip::McuChip(BoardServices& board, const McuPart& part, Uart& uart, GpioLines& gpio,
                 McuApplication& application)
    : board_(board),
      uart_(uart),
      boot0_(gpio.at(kGpioBoot0)),
      application_(application),
      flash_(part, *board.store, kFlashFile),
      loader_(makeBootLoader(flash_, *this, faults_)) {
    gpio.at(kGpioNrst).onEdge([this](int level) { onReset(level); });
    uart_.attach(this);
}

McuChip::~McuChip() { uart_.attach(nullptr); }

McuChip::State McuChip::state() const {
    Guard guard(boardLock());
    return state_;
}

std::string McuChip::version() const {
    Guard guard(boardLock());
    return version_;
}

std::vector<McuChip::Start> McuChip::starts() const {
    Guard guard(boardLock());
    return starts_;
}

void McuChip::flashImage(std::string_view image) {
    Guard guard(boardLock());
    flash_.load(image);
}

// The part starts faster than the host: board time begins when it is up.
void McuChip::powerOn() {
    Guard guard(boardLock());
    startFromReset();
}

void McuChip::powerLost() {
    if (flash_.busy()) flash_.powerLost(static_cast<uint64_t>(now().count()));
    halt(State::kInReset);
}

void McuChip::onReset(int level) {
    if (level == 0) {
        powerLost();  // a reset interrupts a flash operation as a power cut does
        return;
    }
    state_ = State::kStarting;
    after(kStartTime, [this] { startFromReset(); });
}

void McuChip::halt(State state) {
    ++epoch_;
    application_.stop();
    version_.clear();
    state_ = state;
}

void McuChip::startFromReset() {
    if (boot0_.level() == 0) return startApplication();
    state_ = State::kBootLoader;
    starts_.push_back({now(), state_, ""});
    note("the boot loader starts");
    loader_->start();
}

void McuChip::startApplication() {
    const McuImageCheck check = checkMcuImage(part(), flash_.cells());
    state_ = check.problem.empty() ? State::kApplication : State::kNoImage;
    version_ = check.version;
    starts_.push_back({now(), state_, version_});
    if (state_ == State::kNoImage) return note("no start: " + check.problem);
    note("the application starts, " + version_);
    application_.start(part().name, version_);
}

void McuChip::receive(uint8_t byte) {
    if (state_ == State::kBootLoader) loader_->receive(byte);
    if (state_ == State::kApplication) application_.receive(byte);
}

LineSettings McuChip::lineSettings() const {
    if (state_ == State::kBootLoader) return loader_->lineSettings();
    if (state_ == State::kApplication) return application_.lineSettings();
    return uart_.hostLine();
}

Nanos McuChip::now() const { return board_.scheduler.now(); }

void McuChip::after(Nanos delay, std::function<void()> action) {
    board_.scheduler.at(now() + delay, [this, epoch = epoch_, action = std::move(action)] {
        if (epoch == epoch_) action();
    });
}

void McuChip::send(std::vector<uint8_t> bytes) { uart_.sendToHost(bytes); }

LineSettings McuChip::hostLine() const { return uart_.hostLine(); }

void McuChip::note(const std::string& text) {
    board_.trace.add(EventKind::kMcu, part().name, text);
}

void McuChip::violation(const std::string& text) { board_.violation(part().name, text); }

void McuChip::operate(const std::string& what, std::function<Nanos(McuFlash&)> start,
                      std::function<void(const std::string&)> done) {
    const auto cut = board_.trace.add(EventKind::kFlash, part().name, what);
    if (cut == CutPosition::kBefore) return;
    const Nanos takes = start(flash_);
    if (cut == CutPosition::kInside) flash_.powerLost(board_.trace.count());
    if (cut == CutPosition::kAfter) flash_.finish();
    if (!cut) after(takes, [this, done = std::move(done)] { done(flash_.finish()); });
}

void McuChip::resetBySoftware() {
    halt(State::kStarting);
    after(kStartTime, [this] { startFromReset(); });
}

void McuChip::jumpTo(uint32_t address) {
    halt(State::kElsewhere);
    note("a jump out of the boot loader");
    if (address == kMcuFlashBase) startApplication();
}

const McuPart& partOfProductFile(const std::filesystem::path& productFile) {
    IniReader reader;
    const std::string* name = reader.find(reader.load(productFile), "mcu", "mcu_serial");
    const McuPart* part = name != nullptr ? partNamedIn(*name) : nullptr;
    return part != nullptr ? *part : partOf(McuKind::kGd32F303);
}

McuImageCheck checkFlashedMcu(const std::filesystem::path& boardDirectory) {
    const McuPart& part = partOfProductFile(boardDirectory / "rootfs/vendor/etc/product.ini");
    DirectoryStore store(boardDirectory);
    const McuFlash flash(part, store, kFlashFile);
    return checkMcuImage(part, flash.cells());
}

}  // namespace quil::board
