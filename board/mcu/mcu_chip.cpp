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
    : mBoard(board),
      mUart(uart),
      mBoot0(gpio.at(kGpioBoot0)),
      mNrst(gpio.at(kGpioNrst)),
      mApplication(application),
      mFlash(part, *board.store, kFlashFile),
      mLoader(makeBootLoader(mFlash, *this, mFaults)) {
    mNrst.onEdge([this](int level) { onReset(level); });
    mBoard.trace.onClear([this] { mStarts.clear(); });
    mUart.attach(this);
}

McuChip::~McuChip() { mUart.attach(nullptr); }

McuChip::State McuChip::state() const {
    Guard guard(boardLock());
    return mState;
}

std::string McuChip::version() const {
    Guard guard(boardLock());
    return mVersion;
}

std::vector<McuChip::Start> McuChip::starts() const {
    Guard guard(boardLock());
    return mStarts;
}

void McuChip::flashImage(std::string_view image) {
    Guard guard(boardLock());
    mFlash.load(image);
}

// The part starts faster than the host: board time begins when it is up.
void McuChip::powerOn() {
    Guard guard(boardLock());
    startFromReset();
}

void McuChip::powerLost() {
    if (mFlash.busy()) mFlash.powerLost({static_cast<uint64_t>(now().count())});
    halt(State::kInReset);
}

void McuChip::leaveIn(Store& store) const {
    if (!mFlash.busy()) return mFlash.saveIn(store);
    McuFlash torn = mFlash.copyIn(store);
    torn.powerLost({static_cast<uint64_t>(now().count())});
}

void McuChip::onReset(int level) {
    if (level == 0) {
        powerLost();  // a reset interrupts a flash operation as a power cut does
        return;
    }
    mState = State::kStarting;
    after(kStartTime, [this] { startFromReset(); });
}

void McuChip::resetByAdapter(bool intoBootLoader) {
    Guard guard(boardLock());
    mBoot0.setLevel(intoBootLoader ? 1 : 0);
    mNrst.setLevel(0);
    mNrst.setLevel(1);
    if (mBoard.power.isCut()) return;
    halt(State::kStarting);  // the start that is due comes now
    startFromReset();
}

void McuChip::halt(State state) {
    ++mEpoch;
    mApplication.stop();
    mVersion.clear();
    mState = state;
}

void McuChip::startFromReset() {
    if (mBoot0.level() == 0) return startApplication();
    mState = State::kBootLoader;
    mStarts.push_back({now(), mState, ""});
    note("the boot loader starts");
    mLoader->start();
}

void McuChip::startApplication() {
    const McuImageCheck check = checkMcuImage(part(), mFlash.cells());
    mState = check.problem.empty() ? State::kApplication : State::kNoImage;
    mVersion = check.version;
    mStarts.push_back({now(), mState, mVersion});
    if (mState == State::kNoImage) return note("no start: " + check.problem);
    note("the application starts, " + mVersion);
    mApplication.start(part().name, mVersion);
}

void McuChip::receive(uint8_t byte) {
    if (mState == State::kBootLoader) mLoader->receive(byte);
    if (mState == State::kApplication) mApplication.receive(byte);
}

LineSettings McuChip::lineSettings() const {
    if (mState == State::kBootLoader) return mLoader->lineSettings();
    if (mState == State::kApplication) return mApplication.lineSettings();
    return mUart.hostLine();
}

Nanos McuChip::now() const { return mBoard.scheduler.now(); }

void McuChip::after(Nanos delay, std::function<void()> action) {
    mBoard.scheduler.at(now() + delay, [this, epoch = mEpoch, action = std::move(action)] {
        if (epoch == mEpoch) action();
    });
}

void McuChip::send(std::vector<uint8_t> bytes) { mUart.sendToHost(bytes); }

LineSettings McuChip::hostLine() const { return mUart.hostLine(); }

void McuChip::note(const std::string& text) {
    mBoard.trace.add(EventKind::kMcu, part().name, text);
}

void McuChip::violation(const std::string& text) { mBoard.violation(part().name, text); }

void McuChip::operate(const std::string& what, std::function<Nanos(McuFlash&)> start,
                      std::function<void(const std::string&)> done) {
    Trace& trace = mBoard.trace;
    const auto cutAt = [&start](McuFlash& flash, CutPosition position, const Tear& tear) {
        start(flash);
        if (position == CutPosition::kInside) flash.powerLost(tear);
        if (position == CutPosition::kAfter) flash.finish();
    };
    const auto cut = trace.add(EventKind::kFlash, part().name, what);
    trace.probeOperation([&](Store& store, CutPosition position, const Tear& tear) {
        McuFlash flash = mFlash.copyIn(store);
        cutAt(flash, position, tear);
    });
    if (cut == CutPosition::kBefore) return;
    if (cut) return cutAt(mFlash, *cut, trace.tear());
    after(start(mFlash), [this, done = std::move(done)] { done(mFlash.finish()); });
}

void McuChip::resetBySoftware() {
    if (mFlash.busy()) mFlash.powerLost({static_cast<uint64_t>(now().count())});
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
    return partOfProductFile(reader, reader.load(productFile));
}

const McuPart& partOfProductFile(const IniReader& reader, int handle) {
    const std::string* name = reader.find(handle, "mcu", "mcu_serial");
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
