#include "board/fpga/serial_flash.h"

#include <errno.h>
#include <stdio.h>

#include <algorithm>

#include "board/core/bytes.h"

namespace quil::board {
namespace {

constexpr uint8_t kErased = 0xFF;
constexpr char kCellsFile[] = "mtd0";

std::string hexNumber(uint32_t number) {
    char text[16];
    snprintf(text, sizeof(text), "0x%x", number);
    return text;
}

}  // namespace

SerialFlash::SerialFlash(BoardServices& board) : mBoard(board) {
    const std::string content = mBoard.store->read(kCellsFile).value_or("");
    const size_t size = std::min<size_t>(content.size(), kSize);
    mCells.assign(content.begin(), content.begin() + static_cast<ptrdiff_t>(size));
    trim();
}

SerialFlash::~SerialFlash() = default;

// The fault of this step; nothing if it succeeds.
std::optional<Fault> SerialFlash::faultOf(Call call) {
    if (mBoard.power.isCut()) return Fault{.call = call, .error = EIO};
    return mBoard.faults.take(call, kFlashDevice);
}

// Where power is cut, if it is cut at this event.
std::optional<CutPosition> SerialFlash::note(const std::string& text) {
    return mBoard.trace.add(EventKind::kFlash, kFlashDevice, text);
}

size_t SerialFlash::tornBytes(size_t size) const {
    return 1 + tornAt(mBoard.trace.count(), size - 2);
}

std::vector<uint8_t> SerialFlash::read(uint32_t offset, size_t length) const {
    Guard guard(boardLock());
    const size_t end = std::min<size_t>(kSize, offset + length);
    std::vector<uint8_t> cells(end > offset ? end - offset : 0, kErased);
    const size_t kept = std::min(end, mCells.size());
    if (kept > offset) std::copy_n(mCells.begin() + offset, kept - offset, cells.begin());
    return cells;
}

uint32_t SerialFlash::usedSize() const {
    Guard guard(boardLock());
    return static_cast<uint32_t>(mCells.size());
}

void SerialFlash::preload(std::string_view content) {
    Guard guard(boardLock());
    mCells.assign(content.begin(), content.end());
    mCells.resize(std::min<size_t>(mCells.size(), kSize));
    trim();
    save();
}

void SerialFlash::damage(uint32_t offset, uint8_t bits) {
    Guard guard(boardLock());
    if (offset >= kSize) return;
    if (offset >= mCells.size()) mCells.resize(offset + 1, kErased);
    mCells[offset] ^= bits;
    trim();
    save();
}

int SerialFlash::erase(uint32_t offset, uint32_t length) {
    Guard guard(boardLock());
    if (offset % kSector != 0 || length % kSector != 0 || length == 0) return EINVAL;
    if (offset > kSize || length > kSize - offset) return EINVAL;
    const auto cut = note("erase " + hexNumber(offset) + ", " + hexNumber(length) + " bytes");
    if (cut == CutPosition::kInside) {
        eraseCells(offset, static_cast<uint32_t>(tornBytes(length)));
        save();
        return EIO;
    }
    if (mListener) mListener();
    int error = 0;
    for (uint32_t at = offset; at < offset + length && error == 0; at += kSector) {
        const auto fault = faultOf(Call::kFlashErase);
        mBoard.spendDeviceTime(kSectorErase, "flash erase");
        if (!fault) eraseCells(at, kSector);
        if (fault) error = fault->error;
    }
    save();
    note(error == 0 ? "erased" : "erase failed");
    return error;
}

int SerialFlash::program(uint32_t offset, std::span<const uint8_t> data) {
    Guard guard(boardLock());
    if (offset > kSize || data.size() > kSize - offset) return ENOSPC;
    const auto cut = note("program " + hexNumber(offset) + ", " +
                          hexNumber(static_cast<uint32_t>(data.size())) + " bytes");
    if (cut == CutPosition::kInside && data.size() > 1) {
        programCells(offset, data.first(tornBytes(data.size())));
        save();
        return EIO;
    }
    if (mListener) mListener();
    int error = 0;
    for (size_t done = 0; done < data.size() && error == 0;) {
        const auto at = static_cast<uint32_t>(offset + done);
        const size_t part = std::min<size_t>(kPage - at % kPage, data.size() - done);
        const auto fault = faultOf(Call::kFlashProgram);
        mBoard.spendDeviceTime(kPageProgram, "flash program");
        if (!fault) programCells(at, data.subspan(done, part));
        if (fault) error = fault->error;
        done += part;
    }
    save();
    note(error == 0 ? "programmed" : "programming failed");
    return error;
}

void SerialFlash::eraseCells(uint32_t offset, uint32_t length) {
    if (offset >= mCells.size()) return;
    const size_t end = std::min<size_t>(mCells.size(), size_t{offset} + length);
    std::fill(mCells.begin() + offset, mCells.begin() + static_cast<ptrdiff_t>(end), kErased);
    trim();
}

void SerialFlash::programCells(uint32_t offset, std::span<const uint8_t> data) {
    if (mCells.size() < offset + data.size()) mCells.resize(offset + data.size(), kErased);
    bool wasErased = true;
    for (size_t i = 0; i < data.size(); ++i) {
        uint8_t& cell = mCells[offset + i];
        wasErased = wasErased && cell == kErased;
        cell &= data[i];
    }
    if (!wasErased) {
        mBoard.violation(kFlashDevice, "page " + hexNumber(offset) + " is not erased");
    }
}

void SerialFlash::trim() {
    while (!mCells.empty() && mCells.back() == kErased) mCells.pop_back();
}

void SerialFlash::save() const { mBoard.store->replace(kCellsFile, textOf(mCells)); }

}  // namespace quil::board
