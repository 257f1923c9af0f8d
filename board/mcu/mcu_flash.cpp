#include "board/mcu/mcu_flash.h"

#include <algorithm>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "board/core/bytes.h"
#include "board/core/kept_store.h"

namespace quil::board {
namespace {

std::string optionsBeside(const std::string& file) {
    const size_t slash = file.rfind('/');
    return file.substr(0, slash == std::string::npos ? 0 : slash + 1) + "option_bytes";
}

std::string hexAddress(uint32_t offset) {
    char text[16];
    snprintf(text, sizeof(text), "0x%08x", kMcuFlashBase + offset);
    return text;
}

}  // namespace

McuFlash::McuFlash(const McuPart& part, Store& store, std::string file)
    : mPart(part),
      mStore(&store),
      mFile(std::move(file)),
      mOptionsFile(optionsBeside(mFile)),
      mCells(part.flashSize()) {
    const std::string kept = mStore->read(mFile).value_or("");
    mCells.load(std::string_view(kept).substr(0, part.flashSize()));
    loadOptions();
}

McuFlash::~McuFlash() {
    try {
        save();
    } catch (const std::exception& error) {
        rememberKeepFailure(error.what());
    }
}

void McuFlash::loadOptions() {
    std::istringstream lines(mStore->read(mOptionsFile).value_or(""));
    for (std::string line; std::getline(lines, line);) {
        const auto setting = settingIn(line);
        if (!setting) continue;
        std::istringstream value(setting->value);
        if (setting->key == "readout_protected") value >> mReadoutProtected;
        uint32_t page = 0;
        if (setting->key == "write_protected" && value >> page) mWriteProtected.insert(page);
        int low = 0, high = 0;
        if (setting->key == "worn" && value >> page >> low >> high) {
            wear(page, {static_cast<uint8_t>(low), static_cast<uint8_t>(high)});
        }
    }
    mOptionsChanged = false;
}

// The file ends with the last programmed cell.
void McuFlash::saveIn(Store& store) const {
    if (mChanged) {
        std::span<const uint8_t> used = mCells.touched();
        while (!used.empty() && used.back() == 0xFF) used = used.first(used.size() - 1);
        store.replace(mFile, textOf(used));
    }
    if (!mOptionsChanged) return;
    std::string text = "readout_protected = " + std::to_string(mReadoutProtected) + "\n";
    for (const uint32_t page : mWriteProtected) {
        text += "write_protected = " + std::to_string(page) + "\n";
    }
    for (const auto& [offset, bits] : mWorn) {
        text += "worn = " + std::to_string(offset) + " " + std::to_string(bits.stuckLow) + " " +
                std::to_string(bits.stuckHigh) + "\n";
    }
    store.replace(mOptionsFile, text);
}

void McuFlash::save() {
    saveIn(*mStore);
    mChanged = mOptionsChanged = false;
}

McuFlash McuFlash::copyIn(Store& store) const {
    McuFlash copy(*this);
    copy.mStore = &store;
    return copy;
}

McuFlash::Page McuFlash::page(uint32_t number) const {
    uint32_t offset = 0;
    for (const FlashRegion& region : mPart.regions) {
        if (number < region.pages) return {offset + number * region.pageSize, region.pageSize};
        offset += region.pages * region.pageSize;
        number -= region.pages;
    }
    throw std::out_of_range("no such flash page");
}

uint32_t McuFlash::pageAt(uint32_t offset) const {
    uint32_t before = 0;
    for (const FlashRegion& region : mPart.regions) {
        const uint32_t size = region.pages * region.pageSize;
        if (offset < size) return before + offset / region.pageSize;
        offset -= size;
        before += region.pages;
    }
    throw std::out_of_range("beyond the flash");
}

void McuFlash::drawTimes(uint64_t seed) { mTimesSeed = seed; }

Nanos McuFlash::timeOf(const FlashTime& time) const {
    if (mIsSlowest) return time.most;
    if (mTimesSeed == 0) return time.typical;
    constexpr size_t kSteps = 1024;
    const auto seed = mTimesSeed + static_cast<uint64_t>(time.typical.count());
    const auto step = static_cast<int64_t>(tornAt(seed, kSteps));
    return time.typical + (time.most - time.typical) * step / static_cast<int64_t>(kSteps);
}

Nanos McuFlash::eraseTimeOf(uint32_t page) const {
    for (const FlashRegion& region : mPart.regions) {
        if (page < region.pages) return timeOf(region.erase);
        page -= region.pages;
    }
    return Nanos(0);
}

std::vector<uint32_t> McuFlash::allPages() const {
    std::vector<uint32_t> pages(mPart.pageCount());
    std::iota(pages.begin(), pages.end(), 0U);
    return pages;
}

void McuFlash::load(std::string_view image) {
    if (image.size() > mCells.size()) throw std::invalid_argument("more than the flash holds");
    mCells.load(image);
    readWorn();
    mChanged = true;
}

void McuFlash::wear(uint32_t offset, Wear bits) {
    if (offset >= mCells.size()) return;
    mWorn[offset] = bits;
    mOptionsChanged = true;
    readWorn();
}

void McuFlash::readWorn() {
    for (const auto& [offset, bits] : mWorn) {
        uint8_t& cell = mCells.touch(offset);
        cell = static_cast<uint8_t>((cell & ~bits.stuckLow) | bits.stuckHigh);
    }
}

void McuFlash::setReadoutProtected(bool on) {
    mReadoutProtected = on;
    mOptionsChanged = true;
}

void McuFlash::setWriteProtected(std::set<uint32_t> pages) {
    mWriteProtected = std::move(pages);
    mOptionsChanged = true;
}

Nanos McuFlash::startErase(const std::vector<uint32_t>& pages) {
    mOperation = {Operation::kErase, pages};
    return std::accumulate(pages.begin(), pages.end(), Nanos(0),
                           [this](Nanos sum, uint32_t page) { return sum + eraseTimeOf(page); });
}

Nanos McuFlash::startMassErase() {
    mOperation = {Operation::kMassErase, allPages()};
    return timeOf(mPart.massErase);
}

Nanos McuFlash::startUnprotect() {
    mOperation = {Operation::kUnprotect, allPages()};
    return timeOf(mPart.massErase) + timeOf(mPart.writeOptions);
}

Nanos McuFlash::startWriteOptions(bool readoutProtected, std::set<uint32_t> writeProtectedPages) {
    mOperation = {.kind = Operation::kOptions,
                  .readoutProtected = readoutProtected,
                  .writeProtected = std::move(writeProtectedPages)};
    return timeOf(mPart.writeOptions);
}

Nanos McuFlash::startProgram(uint32_t offset, std::span<const uint8_t> bytes) {
    if (offset + bytes.size() > mCells.size()) throw std::out_of_range("beyond the flash");
    mOperation = {Operation::kProgram, {}, offset, {bytes.begin(), bytes.end()}};
    const uint32_t first = offset / mPart.programUnit;
    const size_t end = (offset + bytes.size() + mPart.programUnit - 1) / mPart.programUnit;
    return timeOf(mPart.program) * static_cast<int64_t>(end - first);
}

std::string McuFlash::finish() {
    const Operation done = std::exchange(mOperation, {});
    std::string broken;
    if (done.kind == Operation::kProgram) broken = program(done.offset, done.bytes);
    if (done.kind == Operation::kUnprotect) setWriteProtected({});
    for (const uint32_t number : done.pages) erase(page(number));
    if (done.kind == Operation::kUnprotect) setReadoutProtected(false);
    if (done.kind == Operation::kOptions) {
        setReadoutProtected(done.readoutProtected);
        setWriteProtected(done.writeProtected);
    }
    readWorn();
    return broken;
}

// Cells change one after another: those before the cut are done, one is half done.
void McuFlash::powerLost(const Tear& tear) {
    const Operation torn = std::exchange(mOperation, {});
    if (torn.kind == Operation::kProgram) {
        const auto done = static_cast<uint32_t>(tear.of(torn.bytes.size()));
        program(torn.offset, std::span(torn.bytes).first(done));
        if (done < torn.bytes.size()) {
            mCells.touch(torn.offset + done) &= static_cast<uint8_t>(torn.bytes[done] | 0x55);
        }
    } else if (!torn.pages.empty()) {
        const size_t done = tear.of(torn.pages.size() - 1);
        for (size_t i = 0; i < done; ++i) erase(page(torn.pages[i]));
        const Page half = page(torn.pages[done]);
        erase({half.offset, static_cast<uint32_t>(tear.next().of(half.size))});
    }
    readWorn();
}

bool McuFlash::isProtected(uint32_t offset) const {
    return !mWriteProtected.empty() && mWriteProtected.count(pageAt(offset)) != 0;
}

bool McuFlash::erased(uint32_t offset, uint32_t size) const {
    for (uint32_t at = offset; at < offset + size; ++at) {
        const auto worn = mWorn.find(at);
        const uint8_t low = worn == mWorn.end() ? 0 : worn->second.stuckLow;
        if ((mCells[at] | low) != 0xFF) return false;
    }
    return true;
}

void McuFlash::erase(const Page& page) {
    if (page.size == 0 || isProtected(page.offset)) return;
    mCells.erase(page.offset, page.size);
    mChanged = true;
}

std::string McuFlash::program(uint32_t offset, std::span<const uint8_t> bytes) {
    std::string broken;
    for (uint32_t done = 0; done < bytes.size();) {
        const uint32_t unit = (offset + done) / mPart.programUnit * mPart.programUnit;
        const auto end = static_cast<uint32_t>(
            std::min<size_t>(unit + mPart.programUnit - offset, bytes.size()));
        if (!isProtected(unit)) {
            if (broken.empty() && !erased(unit, mPart.programUnit)) {
                broken = "programming at " + hexAddress(unit) + ", which is not erased";
            }
            for (; done < end; ++done) mCells.touch(offset + done) &= bytes[done];
        }
        done = end;
    }
    mChanged = true;
    return broken;
}

}  // namespace quil::board
