#include "board/mcu/stm32_boot_loader.h"

#include <stddef.h>
#include <stdio.h>

#include <algorithm>
#include <array>
#include <utility>

#include "board/core/bytes.h"

namespace quil::board {
namespace {

constexpr uint8_t kGetPid = 0x06, kErase = 0x43, kSync = 0x7F, kAck = 0x79, kNack = 0x1F;
constexpr int kSlowest = 1200;  // bit/s
constexpr uint16_t kEraseEverything = 0xFFFF, kEraseBank1 = 0xFFFE, kEraseBank2 = 0xFFFD,
                   kFirstSpecial = 0xFFF0;
constexpr int kMeasuredBits = 8;  // of 0x7F, from its start bit to its highest bit

using Area = McuMemory::Area;

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
    : mFlash(flash), mAround(around), mFaults(faults), mPart(flash.part()), mMemory(flash) {}
Stm32BootLoader::~Stm32BootLoader() = default;

void Stm32BootLoader::start() {
    mSynchronised = mBusy = mHung = false;
    mHeardWhileBusy.reset();
    mFirstByte.reset();
    mMemory.reset();
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

// The part takes its first byte for 0x7F.
void Stm32BootLoader::synchronise(uint8_t byte) {
    LineSettings line = mAround.hostLine();
    const int rate = measuredRate(byte);
    if (rate == 0) return;
    if (byte != kSync) {
        mAround.violation(formatted("the first byte is 0x%02x", byte) + ", measured as " +
                          std::to_string(rate) + " bit/s");
    }
    line.baud = rate;
    if (rate < kSlowest || rate > mAround.fastestRate()) {
        return mAround.note("no synchronisation at " + std::to_string(rate) + " bit/s");
    }
    startAt(line);
}

void Stm32BootLoader::startAt(LineSettings line) {
    mLine = line;
    mSynchronised = true;
    mCode = 0;
    if (!acknowledge(LoaderStep::kSync)) mSynchronised = false;
}

// From the start bit to the next falling edge: of 0x7F eight bits. 0: no such edge yet; the next
// byte's start bit is one.
int Stm32BootLoader::measuredRate(uint8_t firstByte) {
    const LineSettings line = mAround.hostLine();
    if (mFirstByte) {
        const auto elapsed = std::max<int64_t>(1, (mAround.now() - *mFirstByte).count());
        mFirstByte.reset();
        return static_cast<int>(
            std::min<int64_t>(INT32_MAX, kMeasuredBits * 1'000'000'000LL / elapsed));
    }
    uint32_t bits = static_cast<uint32_t>(firstByte) << 1;
    const bool odd = __builtin_parity(firstByte) != 0;
    if (line.parity != 'N' && odd == (line.parity == 'E')) bits |= 1U << 9;
    if (line.parity == 'N') bits |= 1U << 9;  // the stop bit
    for (int bit = 1; bit < line.frameBits(); ++bit) {
        const bool falls = (bits >> (bit - 1) & 1) != 0 && (bits >> bit & 1) == 0;
        if (falls && bit <= 9) return static_cast<int>(int64_t{line.baud} * kMeasuredBits / bit);
    }
    mFirstByte = mAround.now();
    return 0;
}

// The receiver keeps one unread byte; further bytes are lost.
void Stm32BootLoader::receiveWhileBusy(uint8_t byte) {
    if (!mHeardWhileBusy) {
        mHeardWhileBusy = byte;
    } else {
        mAround.violation(mFlash.busy() ? "a byte came while the flash was at work, and was lost"
                                        : "a byte came during an answer, and was lost");
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
    if (delay == Nanos(0)) return sendAndHearNothing(std::move(bytes));
    mBusy = mBusy || deaf;
    mAround.after(delay, [this, deaf = deaf, bytes = std::move(bytes)] {
        if (deaf) mBusy = false;
        sendAndHearNothing(bytes);
        if (deaf && !mBusy) hearAgain();
    });
}

// The transmitter takes the last byte while it sends the one before.
void Stm32BootLoader::sendAndHearNothing(std::vector<uint8_t> bytes) {
    const auto before = static_cast<int64_t>(bytes.size()) - 1;
    mAround.send(std::move(bytes));
    if (before <= 0) return;
    mBusy = true;
    mAround.after(lineSettings().byteTime() * before, [this] { hearAgain(); });
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
    const bool listed = std::find(known.begin(), known.end(), mCode) != known.end();
    // GD32 parts answer two commands that Get does not list.
    const bool extra = mPart.identity.gdPid != 0 && (mCode == kGetPid || mCode == kErase);
    if (row == nullptr || !(listed || extra)) {
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
    std::vector<uint8_t> bytes = {kAck, static_cast<uint8_t>(known.size()),
                                  mPart.identity.protocol};
    bytes.insert(bytes.end(), known.begin(), known.end());
    bytes.push_back(kAck);
    answer(std::move(bytes));
    awaitCommand();
}

void Stm32BootLoader::getVersion() {
    if (!passes(LoaderStep::kCommand)) return;
    answer({kAck, mPart.identity.protocol, 0, 0, kAck});
    awaitCommand();
}

void Stm32BootLoader::getId() {
    if (!passes(LoaderStep::kCommand)) return;
    answer({kAck, 1, static_cast<uint8_t>(mPart.identity.productId >> 8),
            static_cast<uint8_t>(mPart.identity.productId), kAck});
    awaitCommand();
}

// The identifier goes out little-endian, after its length and before a closing ACK.
void Stm32BootLoader::getPid() {
    if (!passes(LoaderStep::kCommand)) return;
    std::vector<uint8_t> bytes = {kAck, 4};
    for (int shift = 0; shift < 32; shift += 8) {
        bytes.push_back(static_cast<uint8_t>(mPart.identity.gdPid >> shift));
    }
    bytes.push_back(kAck);
    answer(std::move(bytes));
    awaitCommand();
}

// False if the address was refused or a fault ended the command.
bool Stm32BootLoader::takeAddress(std::initializer_list<Area> allowed) {
    mAddress = big32(mIn, 0);
    const Area area = mMemory.areaOf(mAddress);
    if (!xorIsRight()) {
        refuse("the address's XOR is wrong");
    } else if (std::find(allowed.begin(), allowed.end(), area) == allowed.end()) {
        refuse(formatted("address 0x%08x is out of reach", mAddress));
    } else {
        return acknowledge(LoaderStep::kAddress);
    }
    return false;
}

void Stm32BootLoader::readMemory() {
    if (acknowledge(LoaderStep::kCommand)) expect(5, &Stm32BootLoader::readAddress);
}

void Stm32BootLoader::readAddress() {
    if (takeAddress({Area::kFlash, Area::kRam, Area::kSystem, Area::kOptions})) {
        expect(2, &Stm32BootLoader::readCount);
    }
}

// Only the address has been checked: a read may run past the end of its memory.
void Stm32BootLoader::readCount() {
    const uint32_t count = mIn[0] + 1U;
    if (mIn[1] != static_cast<uint8_t>(~mIn[0])) return refuse("the count lacks its complement");
    if (!passes(LoaderStep::kCount)) return;
    if (mMemory.areaOf(mAddress + count - 1) != mMemory.areaOf(mAddress)) {
        mAround.violation("a read beyond the memory's end");
    }
    std::vector<uint8_t> bytes = {kAck};
    for (uint32_t i = 0; i < count; ++i) bytes.push_back(mMemory.read(mAddress + i));
    awaitCommand();
    answer(std::move(bytes));
}

void Stm32BootLoader::go() {
    if (acknowledge(LoaderStep::kCommand)) expect(5, &Stm32BootLoader::goAddress);
}

void Stm32BootLoader::goAddress() {
    if (takeAddress({Area::kFlash, Area::kRam})) mAround.jumpTo(mAddress);
}

void Stm32BootLoader::writeMemory() {
    if (acknowledge(LoaderStep::kCommand)) expect(5, &Stm32BootLoader::writeAddress);
}

void Stm32BootLoader::writeAddress() {
    if (takeAddress({Area::kFlash, Area::kRam, Area::kOptions})) {
        expect(1, &Stm32BootLoader::writeCount);
    }
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
    const Area area = mMemory.areaOf(mAddress);
    if (mMemory.areaOf(mAddress + count - 1) != area) {
        return refuse("a write beyond the memory's end");
    }
    if (!passes(LoaderStep::kData)) return;
    const std::vector<uint8_t> data(mIn.begin() + 1, mIn.end() - 1);
    if (area == Area::kFlash) return programFlash(mAddress - kMcuFlashBase, data);
    if (area == Area::kOptions) {
        return writeOptions(
            [this, data](McuFlash&) { return mMemory.startWriteOptions(mAddress, data); });
    }
    mMemory.writeRam(mAddress, data);
    finished("", false);
}

void Stm32BootLoader::programFlash(uint32_t offset, std::vector<uint8_t> bytes) {
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

// A global erase with another byte than 0 behind it is acknowledged, and nothing is erased.
void Stm32BootLoader::erasePages() {
    if (mIn[0] == 0xFF && mIn[1] == 0) return massErase();
    if (mIn[0] == 0xFF) {
        mAround.violation("the global erase's check byte is wrong");
        return finished("", false);
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
    mExpected = special ? 3 : 2 + 2 * (count + 1U) + 1;
    mNext = special ? &Stm32BootLoader::specialErase : &Stm32BootLoader::extendedPages;
}

// All of the flash is in the first bank: these parts are the smallest of their families.
void Stm32BootLoader::specialErase() {
    const auto request = static_cast<uint16_t>(mIn[0] << 8 | mIn[1]);
    if (!xorIsRight()) return refuse("the erase request's XOR is wrong");
    if (request == kEraseEverything) return massErase();
    if (mPart.erasesBanks && request == kEraseBank1) return massErase();
    if (mPart.erasesBanks && request == kEraseBank2) return erasePagesNow({});
    refuse(formatted("no special erase 0x%04x", request));
}

void Stm32BootLoader::extendedPages() {
    if (!xorIsRight()) return refuse("the page list's XOR is wrong");
    std::vector<uint32_t> pages;
    for (size_t at = 2; at + 2 < mIn.size(); at += 2) pages.push_back(mIn[at] << 8 | mIn[at + 1]);
    erasePagesNow(std::move(pages));
}

// Numbers of pages that the part has not are passed over: boards send such for parts whose pages
// are larger than they take them for.
void Stm32BootLoader::erasePagesNow(std::vector<uint32_t> pages) {
    std::erase_if(pages, [this](uint32_t page) { return page >= mPart.pageCount(); });
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
    const std::vector<uint8_t> sectors(mIn.begin() + 1, mIn.end() - 1);
    writeOptions([this, sectors](McuFlash& flash) {
        return flash.startWriteOptions(flash.readoutProtected(), mMemory.pagesOf(sectors));
    });
}

void Stm32BootLoader::writeUnprotect() {
    if (!acknowledge(LoaderStep::kCommand) || !passes(LoaderStep::kData)) return;
    writeOptions(
        [](McuFlash& flash) { return flash.startWriteOptions(flash.readoutProtected(), {}); });
}

void Stm32BootLoader::readoutProtect() {
    if (!acknowledge(LoaderStep::kCommand) || !passes(LoaderStep::kData)) return;
    writeOptions(
        [](McuFlash& flash) { return flash.startWriteOptions(true, flash.writeProtectedPages()); });
}

// Erases the flash, whether it was protected or not.
void Stm32BootLoader::readoutUnprotect() {
    if (!acknowledge(LoaderStep::kCommand) || !passes(LoaderStep::kData)) return;
    operate(
        "erase everything", [](McuFlash& flash) { return flash.startUnprotect(); },
        mPart.resetsAfterOptions);
}

void Stm32BootLoader::writeOptions(std::function<Nanos(McuFlash&)> start) {
    operate("write the option bytes", std::move(start), mPart.resetsAfterOptions);
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
