#include "board/board.h"

#include <cstdio>
#include <cstdlib>
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
    if (!std::filesystem::is_directory(dir / "rootfs")) {
        throw std::runtime_error(dir.string() + ": not a board directory (no rootfs in it)");
    }
    auto machine = std::make_unique<Machine>(std::filesystem::absolute(dir), options);
    machine->faults.watchAllocations(
        [](bool mayFail) { mayFail ? hookAllocations() : unhookAllocations(); });
    machine->powerOn(options.realtime);
    g_poweredMachine.store(machine.get());
    machine->trace.add(EventKind::kPower, "board", "on, seed " + std::to_string(options.seed));
    machine->mcuChip.powerOn();
    return machine;
}

}  // namespace

Board::Board(Product product, BoardOptions options)
    : temporary_(makeTemporaryBoard(product, options.flashedMcuVersion)),
      machine_(powerOn(temporary_->path(), options)) {}

Board::Board(const std::filesystem::path& dir, BoardOptions options)
    : machine_(powerOn(dir, options)) {}

Board::~Board() {
    machine_->trace.add(EventKind::kPower, "board", "off");
    g_poweredMachine.store(nullptr);
    machine_->powerOff();
    machine_.reset();
}

const std::filesystem::path& Board::directory() const { return machine_->directory; }

std::filesystem::path Board::hostPath(std::string_view boardPath) const {
    return machine_->hostPath(boardPath);
}

void Board::writeFile(std::string_view boardPath, std::string_view content) {
    Guard guard(boardLock());
    const auto path = machine_->hostPath(boardPath);
    std::filesystem::create_directories(path.parent_path());
    writeWholeFile(path, content);
}

bool Board::isOpen(int fd) const {
    Guard guard(boardLock());
    return machine_->openFile(fd) != nullptr;
}

void Board::lendDevice(const std::string& path) {
    Guard guard(boardLock());
    machine_->lentDevices.lend(path);
}

Nanos Board::now() const {
    Guard guard(boardLock());
    return machine_->scheduler.now();
}

void Board::runFor(Nanos duration) {
    Scheduler::arrive();
    Guard guard(boardLock());
    machine_->scheduler.sleepFor(duration, "runFor");
}

void Board::after(Nanos delay, std::function<void()> action) {
    Guard guard(boardLock());
    machine_->scheduler.at(machine_->scheduler.now() + delay, std::move(action));
}

void Board::cutPowerAt(PowerCut cut) { machine_->trace.cutPowerAt(cut); }

bool Board::powerIsCut() const {
    Guard guard(boardLock());
    machine_->trace.cutIfDue();
    return machine_->dead();
}

Trace& Board::trace() { return machine_->trace; }
Properties& Board::properties() { return machine_->properties; }
Faults& Board::faults() { return machine_->faults; }
McuApplication& Board::mcu() { return machine_->mcu; }
McuChip& Board::mcuChip() { return machine_->mcuChip; }
Uart& Board::mcuUart() { return machine_->mcuUart; }
ProductInformation& Board::productInformation() { return machine_->productInformation; }
IniReader& Board::iniReader() { return machine_->iniReader; }
Probes& Board::probes() { return machine_->probes; }
GpioLines& Board::gpio() { return machine_->gpio; }
Shell& Board::shell() { return machine_->shell; }
Sysfs& Board::sysfs() { return machine_->sysfs; }
Fpga& Board::fpga() { return machine_->fpga; }
SerialFlash& Board::flash() { return machine_->flash; }
Phy& Board::phy() { return machine_->phy; }
Network& Board::network() { return machine_->network; }
FpgaLibrary& Board::fpgaLibrary() { return machine_->fpgaLibrary; }

Nanos Board::deviceTime() const {
    Guard guard(boardLock());
    return machine_->deviceTime;
}

std::vector<LogLine> Board::logLines() const {
    Guard guard(boardLock());
    return machine_->log;
}

LogLine Board::lastLogLine() const {
    Guard guard(boardLock());
    return machine_->log.empty() ? LogLine{} : machine_->log.back();
}

std::vector<std::string> Board::log() const {
    Guard guard(boardLock());
    std::vector<std::string> texts;
    for (const LogLine& line : machine_->log) texts.push_back(line.text);
    return texts;
}

std::vector<std::string> Board::log(int priority) const {
    Guard guard(boardLock());
    std::vector<std::string> texts;
    for (const LogLine& line : machine_->log) {
        if (line.priority == priority) texts.push_back(line.text);
    }
    return texts;
}

std::vector<std::string> Board::violations() const {
    Guard guard(boardLock());
    return machine_->violations;
}

void Board::clearLog() {
    Guard guard(boardLock());
    machine_->log.clear();
}

}  // namespace quil::board
