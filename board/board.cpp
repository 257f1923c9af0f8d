#include "board/board.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <stdexcept>

#include "board/core/whole_file.h"
#include "board/interpose/malloc_hook.h"
#include "board/machine.h"

namespace quil::board {
namespace {

std::unique_ptr<TemporaryDirectory> makeTemporaryBoard(Product product,
                                                       const std::string& mcuVersion) {
    auto directory = std::make_unique<TemporaryDirectory>();
    createBoardDirectory(directory->path(), product, mcuVersion);
    return directory;
}

std::unique_ptr<Machine> powerOn(const std::filesystem::path& dir, BoardOptions options) {
    if (poweredMachine() != nullptr) throw std::runtime_error("a board is powered on already");
    if (!options.store) requireBoard(dir);
    auto machine = std::make_unique<Machine>(std::filesystem::absolute(dir), options);
    machine->faults.watchAllocations(
        [](bool mayFail) { mayFail ? hookAllocations() : unhookAllocations(); });
    machine->powerOn(options.realtime ? options.speed : 0,
                     Schedule(options.seed, options.pct, options.drawnSteps), options.standstill);
    g_poweredMachine.store(machine.get());
    machine->trace.add(EventKind::kPower, "board", "on, seed " + std::to_string(options.seed));
    machine->mcuChip.powerOn();
    return machine;
}

}  // namespace

Board::Board(Product product, BoardOptions options)
    : mTemporary(makeTemporaryBoard(product, options.flashedMcuVersion)),
      mMachine(powerOn(mTemporary->path(), options)) {}

Board::Board(const std::filesystem::path& dir, BoardOptions options)
    : mMachine(powerOn(dir, options)) {}

Board::Board(std::shared_ptr<OverlayStore> store, BoardOptions options) {
    options.store = std::move(store);
    mMachine = powerOn("/nowhere", options);
}

Board::~Board() {
    mMachine->trace.add(EventKind::kPower, "board", "off");
    g_poweredMachine.store(nullptr);
    mMachine->powerOff();
    mMachine.reset();
}

const std::filesystem::path& Board::directory() const { return mMachine->directory; }

std::filesystem::path Board::hostPath(std::string_view boardPath) const {
    return mMachine->hostPath(boardPath);
}

void Board::writeFile(std::string_view boardPath, std::string_view content) {
    Guard guard(boardLock());
    if (mMachine->filesInMemory) {
        return mMachine->options.store->replace(mMachine->nameInMemory(boardPath), content);
    }
    const auto path = mMachine->hostPath(boardPath);
    std::filesystem::create_directories(path.parent_path());
    writeWholeFile(path, content);
}

bool Board::isOpen(int fd) const {
    Guard guard(boardLock());
    return mMachine->openFile(fd) != nullptr;
}

void Board::lendDevice(const std::string& path, DeviceGate gate) {
    Guard guard(boardLock());
    mMachine->lentDevices.lend(path, std::move(gate));
}

Nanos Board::now() const {
    Guard guard(boardLock());
    return mMachine->scheduler.lastPowered();
}

void Board::runFor(Nanos duration) {
    Scheduler::arrive();
    Guard guard(boardLock());
    mMachine->scheduler.sleepFor(duration, "runFor");
}

bool Board::runUntilIdle(Nanos most) {
    Scheduler::arrive();
    Guard guard(boardLock());
    Scheduler& scheduler = mMachine->scheduler;
    const Nanos end = scheduler.now() + most;
    for (auto next = scheduler.nextTimer(); next; next = scheduler.nextTimer()) {
        if (*next > end) return false;
        scheduler.sleepUntil(std::max(*next, scheduler.now() + Nanos(1)), "runUntilIdle");
    }
    return true;
}

void Board::after(Nanos delay, std::function<void()> action) {
    Guard guard(boardLock());
    mMachine->scheduler.at(mMachine->scheduler.now() + delay, std::move(action));
}

void Board::cutPowerAt(PowerCut cut) { mMachine->trace.cutPowerAt(cut); }

void Board::cutPowerSoon(const char* why) {
    mMachine->trace.cutSoon(why);
    mMachine->scheduler.wakeClock();
}

void Board::onEachCut(std::function<void(const PowerCut&, const OverlayStore::Files&)> told) {
    if (!told) return mMachine->trace.probeCuts(nullptr);
    if (!mMachine->options.store)
        throw std::logic_error("the board keeps its files in a directory");
    const auto probe = [machine = mMachine.get(), told = std::move(told)](
                           const PowerCut& cut, const std::function<void(Store&)>& last) {
        const OverlayStore& kept = *machine->options.store;
        OverlayStore left(kept.below(), kept.written());
        machine->mcuChip.leaveIn(left);
        if (last) last(left);
        told(cut, left.written());
    };
    mMachine->trace.probeCuts(probe);
}

bool Board::powerIsCut() const {
    Guard guard(boardLock());
    mMachine->trace.cutIfDue();
    return mMachine->dead();
}

Trace& Board::trace() { return mMachine->trace; }
Properties& Board::properties() { return mMachine->properties; }
Faults& Board::faults() { return mMachine->faults; }
McuApplication& Board::mcu() { return mMachine->mcu; }
McuChip& Board::mcuChip() { return mMachine->mcuChip; }
Uart& Board::mcuUart() { return mMachine->mcuUart; }
ProductInformation& Board::productInformation() { return mMachine->productInformation; }
IniReader& Board::iniReader() { return mMachine->iniReader; }
Probes& Board::probes() { return mMachine->probes; }
GpioLines& Board::gpio() { return mMachine->gpio; }
Shell& Board::shell() { return mMachine->shell; }
Sysfs& Board::sysfs() { return mMachine->sysfs; }
Fpga& Board::fpga() { return mMachine->fpga; }
SerialFlash& Board::flash() { return mMachine->flash; }
Phy& Board::phy() { return mMachine->phy; }
Network& Board::network() { return mMachine->network; }
FpgaLibrary& Board::fpgaLibrary() { return mMachine->fpgaLibrary; }

Nanos Board::deviceTime() const {
    Guard guard(boardLock());
    return mMachine->deviceTime;
}

std::vector<LogLine> Board::logLines() const {
    Guard guard(boardLock());
    return mMachine->log;
}

LogLine Board::lastLogLine() const {
    Guard guard(boardLock());
    return mMachine->log.empty() ? LogLine{} : mMachine->log.back();
}

std::vector<std::string> Board::log() const {
    Guard guard(boardLock());
    std::vector<std::string> texts;
    for (const LogLine& line : mMachine->log) texts.push_back(line.text);
    return texts;
}

std::vector<std::string> Board::log(int priority) const {
    Guard guard(boardLock());
    std::vector<std::string> texts;
    for (const LogLine& line : mMachine->log) {
        if (line.priority == priority) texts.push_back(line.text);
    }
    return texts;
}

std::vector<std::string> Board::violations() const {
    Guard guard(boardLock());
    return mMachine->violations.texts();
}

void Board::clearLog() {
    Guard guard(boardLock());
    mMachine->log.clear();
}

}  // namespace quil::board
