#include "board/mcu/stm32_boot_loader.h"

#include <stddef.h>
#include <stdio.h>

#include <algorithm>
#include <array>
#include <utility>

#include "board/core/bytes.h"

namespace quil::board {
namespace {

constexpr uint8_t kSync = 0x7F, kAck = 0x79, kNack = 0x1F;
constexpr int kSlowest = 1200, kFastest = 115200;  // bit/s
constexpr size_t kMostPages = 512;                 // numbers that an extended erase takes
constexpr uint16_t kEraseEverything = 0xFFFF, kFirstSpecial = 0xFFF0;

std::string formatted(const char* format, uint32_t value) {
    char text[48];
    snprintf(text, sizeof(text), format, value);
    return text;
}

using Row = Stm32BootLoader::CommandRow;

}  // namespace

const Stm32BootLoader::CommandRow* Stm32BootLoader::rowOf(uint8_t code) {
    using Self = Stm32BootLoader;
    static constexpr std::array<Row, 13> kRows = {{
        {0x00, "Get", false, &Self::get},
        {0x01, "Get Version", false, &Self::getVersion},
        {0x02, "Get ID", false, &Self::getId},
        {0x06, "Get PID", false, &Self::getPid},
        {0x11, "Read Memory", true, &Self::readMemory},
        {0x21, "Go", true, &Self::go},
        {0x31, "Write Memory", true, &Self::writeMemory},
        {0x43, "Erase", true, &Self::erase},
        {0x44, "Extended Erase", true, &Self::extendedErase},
        {0x63, "Write Protect", true, &Self::writeProtect},
        {0x73, "Write Unprotect", true, &Self::writeUnprotect},
        {0x82, "Readout Protect", true, &Self::readoutProtect},
        {0x92, "Readout Unprotect", false, &Self::readoutUnprotect},
    }};
    const auto* row = std::find_if(kRows.begin(), kRows.end(),
                                   [code](const Row& entry) { return entry.code == code; });
    return row == kRows.end() ? nullptr : row;
}

Stm32BootLoader::Stm32BootLoader(McuFlash& flash, McuSurroundings& around, LoaderFaults& faults)
    : mFlash(flash), mAround(around), mFaults(faults), mPart(flash.part()) {}
Stm32BootLoader::~Stm32BootLoader() = default;

void Stm32BootLoader::start() {
    mSynchronised = mBusy = mHung = false;
    mHeardWhileBusy.reset();
    mRam.clear();
    mFault.forget();
    awaitCommand();
}

LineSettings Stm32BootLoader::lineSettings() const {
    return mSynchronised ? mLine : mAround.hostLine();
}

void Stm32BootLoader::receive(uint8_t byte) {
    if (mHung) return;
    if (!mSynchronised) return synchronise(byte);
    if (mBusy) return receiveWhileBusy(byte);
    mIn.push_back(byte);
    if (mIn.size() == mExpected) (this->*mNext)();
}

void Stm32BootLoader::synchronise(uint8_t byte) {
    const LineSettings line = mAround.hostLine();
    if (line.baud < kSlowest || line.baud > kFastest || byte != kSync) {
        return mAround.note("no synchronisation with " + formatted("0x%02x", byte) + " at " +
                            std::to_string(line.baud) + " bit/s");
    }
    mLine = line;
    mSynchronised = true;
    mCode = 0;
    if (!acknowledge(LoaderStep::kSync)) mSynchronised = false;
}

// The receiver keeps one unread byte; further bytes are lost.
void Stm32BootLoader::receiveWhileBusy(uint8_t byte) {
    if (!mHeardWhileBusy) {
        mHeardWhileBusy = byte;
    } else {
        mAround.violation("a byte came while the flash was at work, and was lost");
    }
}

void Stm32BootLoader::expect(size_t bytes, Handler handler) {
    mIn.clear();
    mExpected = bytes;
    mNext = handler;
}

void Stm32BootLoader::awaitCommand() { expect(2, &Stm32BootLoader::command); }

bool Stm32BootLoader::passes(LoaderStep step) {
    using Kind = LoaderFault::Kind;
    const auto fault = mFaults.take(mCode, step);
    if (!fault) return true;
    mAround.note(std::string("fault at ") + nameOf(step) + formatted(" of command 0x%02x", mCode));
    const bool ends =
        fault->kind == Kind::kSilent || fault->kind == Kind::kNack || fault->kind == Kind::kHangs;
    const bool resetsNow = fault->kind == Kind::kReset && step != LoaderStep::kData;
    if (!ends && !resetsNow) {
        mFault.set(*fault);
        return true;
    }
    awaitCommand();
    if (fault->kind == Kind::kNack) answer({kNack});
    if (fault->kind == Kind::kHangs) mHung = true;
    if (resetsNow) mAround.resetBySoftware();
    return false;
}

bool Stm32BootLoader::acknowledge(LoaderStep step) {
    if (!passes(step)) return false;
    answer({kAck});
    return true;
}

void Stm32BootLoader::answer(std::vector<uint8_t> bytes) {
    const auto [delay, deaf] = mFault.apply(bytes, 0, 1);
    if (delay == Nanos(0)) return mAround.send(std::move(bytes));
    mBusy = mBusy || deaf;
    mAround.after(delay, [this, deaf = deaf, bytes = std::move(bytes)] {
        mAround.send(bytes);
        if (deaf) hearAgain();
    });
}

void Stm32BootLoader::refuse(const std::string& why, bool violation) {
    if (violation) {
        mAround.violation(why);
    } else {
        mAround.note("refused: " + why);
    }
    awaitCommand();
    answer({kNack});
}

bool Stm32BootLoader::xorIsRight() { return xorOf(mIn) == 0; }

void Stm32BootLoader::command() {
    mCode = mIn[0];
    if (mIn[1] != static_cast<uint8_t>(~mCode)) {
        return refuse(formatted("command 0x%02x without its complement", mCode));
    }
    const CommandRow* row = rowOf(mCode);
    const auto& known = mPart.commands;
    if (row == nullptr || std::find(known.begin(), known.end(), mCode) == known.end()) {
        return refuse(formatted("no command 0x%02x", mCode), false);
    }
    if (row->refusedUnderReadoutProtection && mFlash.readoutProtected()) {
        return refuse(std::string(row->name) + " under read-out protection", false);
    }
    (this->*row->handler)();
}

void Stm32BootLoader::get() {
    if (!passes(LoaderStep::kCommand)) return;
    const auto& known = mPart.commands;
    std::vector<uint8_t> bytes = {kAck, static_cast<uint8_t>(known.size()), mPart.loaderVersion};
    bytes.insert(bytes.end(), known.begin(), known.end());
    bytes.push_back(kAck);
    answer(std::move(bytes));
    awaitCommand();
}

void Stm32BootLoader::getVersion() {
    if (!passes(LoaderStep::kCommand)) return;
    answer({kAck, mPart.loaderVersion, 0, 0, kAck});
    awaitCommand();
}

void Stm32BootLoader::getId() {
    if (!passes(LoaderStep::kCommand)) return;
    answer({kAck, 1, static_cast<uint8_t>(mPart.productId >> 8),
            static_cast<uint8_t>(mPart.productId), kAck});
    awaitCommand();
}

// The identifier goes out little-endian, after its length and before a closing ACK.
void Stm32BootLoader::getPid() {
    if (!passes(LoaderStep::kCommand)) return;
    std::vector<uint8_t> bytes = {kAck, 4};
    for (int shift = 0; shift < 32; shift += 8) {
        bytes.push_back(static_cast<uint8_t>(mPart.gdPid >> shift));
    }
    bytes.push_back(kAck);
    answer(std::move(bytes));
    awaitCommand();
}

bool Stm32BootLoader::inFlash(uint32_t address, size_t size) const {
    return address >= kMcuFlashBase && address - kMcuFlashBase + size <= mPart.flashSize();
}

bool Stm32BootLoader::inRam(uint32_t address, size_t size) const {
    return address >= kMcuRamBase && address - kMcuRamBase + size <= mPart.ramSize;
}

// False if the address was refused or a fault ended the command.
bool Stm32BootLoader::takeAddress() {
    mAddress = big32(mIn, 0);
    if (!xorIsRight()) {
        refuse("the address's XOR is wrong");
    } else if (!inFlash(mAddress, 1) && !inRam(mAddress, 1)) {
        refuse(formatted("address 0x%08x is neither flash nor RAM", mAddress));
    } else {
        return acknowledge(LoaderStep::kAddress);
    }
    return false;
}

void Stm32BootLoader::readMemory() {
    if (acknowledge(LoaderStep::kCommand)) expect(5, &Stm32BootLoader::readAddress);
}

void Stm32BootLoader::readAddress() {
    if (takeAddress()) expect(2, &Stm32BootLoader::readCount);
}

void Stm32BootLoader::readCount() {
    const size_t count = mIn[0] + 1U;
    if (mIn[1] != static_cast<uint8_t>(~mIn[0])) return refuse("the count lacks its complement");
    if (!inFlash(mAddress, count) && !inRam(mAddress, count)) {
        return refuse("a read beyond the memory's end");
    }
    if (!passes(LoaderStep::kCount)) return;
    std::vector<uint8_t> bytes = {kAck};
    if (inFlash(mAddress, count)) {
        const auto cells = mFlash.cells().subspan(mAddress - kMcuFlashBase, count);
        bytes.insert(bytes.end(), cells.begin(), cells.end());
    } else {
        mRam.resize(mPart.ramSize);
        const auto at = mRam.begin() + (mAddress - kMcuRamBase);
        bytes.insert(bytes.end(), at, at + static_cast<ptrdiff_t>(count));
    }
    awaitCommand();
    answer(std::move(bytes));
}

void Stm32BootLoader::go() {
    if (acknowledge(LoaderStep::kCommand)) expect(5, &Stm32BootLoader::goAddress);
}

void Stm32BootLoader::goAddress() {
    if (takeAddress()) mAround.jumpTo(mAddress);
}

void Stm32BootLoader::writeMemory() {
    if (acknowledge(LoaderStep::kCommand)) expect(5, &Stm32BootLoader::writeAddress);
}

void Stm32BootLoader::writeAddress() {
    if (takeAddress()) expect(1, &Stm32BootLoader::writeCount);
}

// The count, the data and their XOR are received as one frame.
void Stm32BootLoader::writeCount() {
    mExpected = mIn[0] + 3U;
    mNext = &Stm32BootLoader::writeData;
}

void Stm32BootLoader::writeData() {
    const uint32_t count = mIn[0] + 1U;
    if (!xorIsRight()) return refuse("the data's XOR is wrong");
    if (mAddress % 4 != 0) return refuse(formatted("0x%08x is on no word", mAddress));
    if (count % mPart.writeMultiple != 0) {
        return refuse(std::to_string(count) + " bytes are no multiple of " +
                      std::to_string(mPart.writeMultiple));
    }
    if (inFlash(mAddress, count)) {
        if (passes(LoaderStep::kData)) programFlash(mAddress - kMcuFlashBase);
        return;
    }
    if (!inRam(mAddress, count)) return refuse("a write beyond the memory's end");
    if (!passes(LoaderStep::kData)) return;
    mRam.resize(mPart.ramSize);
    std::copy(mIn.begin() + 1, mIn.end() - 1, mRam.begin() + (mAddress - kMcuRamBase));
    finished("", false);
}

void Stm32BootLoader::programFlash(uint32_t offset) {
    std::vector<uint8_t> bytes(mIn.begin() + 1, mIn.end() - 1);
    mFault.spoil(bytes);
    const std::string what = formatted("program 0x%08x", kMcuFlashBase + offset) + ", " +
                             std::to_string(bytes.size()) + " bytes";
    operate(
        what,
        [offset, bytes = std::move(bytes)](McuFlash& flash) {
            return flash.startProgram(offset, bytes);
        },
        false);
}

void Stm32BootLoader::erase() {
    if (acknowledge(LoaderStep::kCommand)) expect(1, &Stm32BootLoader::eraseCount);
}

void Stm32BootLoader::eraseCount() {
    mExpected = mIn[0] == 0xFF ? 2 : mIn[0] + 3U;
    mNext = &Stm32BootLoader::erasePages;
}

void Stm32BootLoader::erasePages() {
    if (mIn[0] == 0xFF) {
        return mIn[1] == 0 ? massErase() : refuse("the global erase's check byte is wrong");
    }
    if (!xorIsRight()) return refuse("the page list's XOR is wrong");
    erasePagesNow({mIn.begin() + 1, mIn.end() - 1});
}

void Stm32BootLoader::extendedErase() {
    if (acknowledge(LoaderStep::kCommand)) expect(2, &Stm32BootLoader::extendedCount);
}

void Stm32BootLoader::extendedCount() {
    const auto count = static_cast<uint16_t>(mIn[0] << 8 | mIn[1]);
    const bool special = count >= kFirstSpecial;
    if (!special && count >= kMostPages) return refuse("an erase of too many pages");
    mExpected = special ? 3 : 2 + 2 * (count + 1U) + 1;
    mNext = special ? &Stm32BootLoader::specialErase : &Stm32BootLoader::extendedPages;
}

void Stm32BootLoader::specialErase() {
    const auto request = static_cast<uint16_t>(mIn[0] << 8 | mIn[1]);
    if (!xorIsRight()) return refuse("the erase request's XOR is wrong");
    if (request != kEraseEverything) return refuse(formatted("no special erase 0x%04x", request));
    massErase();
}

void Stm32BootLoader::extendedPages() {
    if (!xorIsRight()) return refuse("the page list's XOR is wrong");
    std::vector<uint32_t> pages;
    for (size_t at = 2; at + 2 < mIn.size(); at += 2) pages.push_back(mIn[at] << 8 | mIn[at + 1]);
    erasePagesNow(std::move(pages));
}

void Stm32BootLoader::erasePagesNow(std::vector<uint32_t> pages) {
    const auto absent = [this](uint32_t page) { return page >= mPart.pageCount(); };
    if (!mPart.ignoresAbsentPages && std::any_of(pages.begin(), pages.end(), absent)) {
        return refuse("an erase of a page that the part has not");
    }
    std::erase_if(pages, absent);
    if (!passes(LoaderStep::kData)) return;
    const std::string what = "erase " + std::to_string(pages.size()) + " pages";
    operate(
        what, [pages = std::move(pages)](McuFlash& flash) { return flash.startErase(pages); },
        false);
}

void Stm32BootLoader::massErase() {
    if (!passes(LoaderStep::kData)) return;
    operate(
        "erase everything", [](McuFlash& flash) { return flash.startMassErase(); }, false);
}

void Stm32BootLoader::writeProtect() {
    if (acknowledge(LoaderStep::kCommand)) expect(1, &Stm32BootLoader::writeProtectCount);
}

void Stm32BootLoader::writeProtectCount() {
    mExpected = mIn[0] + 3U;
    mNext = &Stm32BootLoader::writeProtectSectors;
}

void Stm32BootLoader::writeProtectSectors() {
    if (!xorIsRight()) return refuse("the sector list's XOR is wrong");
    if (!passes(LoaderStep::kData)) return;
    mFlash.setWriteProtected({mIn.begin() + 1, mIn.end() - 1});
    finished("", true);
}

void Stm32BootLoader::writeUnprotect() {
    if (!acknowledge(LoaderStep::kCommand)) return;
    mFlash.setWriteProtected({});
    finished("", true);
}

void Stm32BootLoader::readoutProtect() {
    if (!acknowledge(LoaderStep::kCommand)) return;
    mFlash.setReadoutProtected(true);
    finished("", true);
}

// Ends the protection and erases the flash that it protected.
void Stm32BootLoader::readoutUnprotect() {
    if (!acknowledge(LoaderStep::kCommand)) return;
    if (!mFlash.readoutProtected()) return finished("", true);
    operate(
        "erase everything",
        [](McuFlash& flash) {
            flash.setReadoutProtected(false);
            return flash.startMassErase();
        },
        true);
}

// A part that resets in the middle of the operation never finishes it.
void Stm32BootLoader::operate(const std::string& what, std::function<Nanos(McuFlash&)> start,
                              bool resets) {
    mBusy = true;
    const bool torn = mFault.takeReset();
    const auto startOrTear = [this, torn, start = std::move(start)](McuFlash& flash) {
        const Nanos takes = start(flash);
        if (torn) mAround.after(takes / 2, [this] { mAround.resetBySoftware(); });
        return takes;
    };
    mAround.operate(what, startOrTear, [this, resets](const std::string& broken) {
        mBusy = false;
        finished(broken, resets);
        if (!mBusy) hearAgain();
    });
}

void Stm32BootLoader::hearAgain() {
    mBusy = false;
    if (!mHeardWhileBusy) return;
    const uint8_t byte = *std::exchange(mHeardWhileBusy, std::nullopt);
    receive(byte);
}

void Stm32BootLoader::finished(const std::string& broken, bool resets) {
    if (!broken.empty()) return refuse(broken);
    const bool passed = acknowledge(LoaderStep::kFinished);
    awaitCommand();
    if (passed && resets) mAround.resetBySoftware();
}

}  // namespace quil::board
