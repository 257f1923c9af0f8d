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
    const auto cells = bytesOf(content).first(std::min<size_t>(content.size(), kSize));
    mCells.assign(cells.begin(), cells.end());
}

SerialFlash::~SerialFlash() = default;

// The fault of this step; nothing if it succeeds.
std::optional<Fault> SerialFlash::faultOf(Call call) {
    if (mBoard.power.isCut()) return Fault{.call = call, .error = EIO};
    return mBoard.faults.take(call, kFlashDevice);
}

bool SerialFlash::begin(const std::string& text, size_t size, const Part& part) {
    Trace& trace = mBoard.trace;
    // Inside is more than none and less than all, where there is such a part.
    const auto bytesAt = [size](CutPosition position, const Tear& tear) {
        if (position == CutPosition::kAfter) return size;
        return size < 2 ? 0 : 1 + tear.of(size - 2);
    };
    const auto cut = trace.add(EventKind::kFlash, kFlashDevice, text);
    trace.probeOperation([&](Store& store, CutPosition position, const Tear& tear) {
        Cells cells = mCells;
        part(cells, bytesAt(position, tear));
        keep(cells, store);
    });
    if (!cut) return true;
    if (cut != CutPosition::kBefore) {
        part(mCells, bytesAt(*cut, trace.tear()));
        save();
    }
    return false;
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
    return static_cast<uint32_t>(usedOf(mCells));
}

void SerialFlash::preload(std::string_view content) {
    Guard guard(boardLock());
    mCells.assign(content.begin(), content.end());
    mCells.resize(std::min<size_t>(mCells.size(), kSize));
    save();
}

void SerialFlash::damage(uint32_t offset, uint8_t bits) {
    Guard guard(boardLock());
    if (offset >= kSize) return;
    if (offset >= mCells.size()) mCells.resize(offset + 1, kErased);
    mCells[offset] ^= bits;
    save();
}

int SerialFlash::erase(uint32_t offset, uint32_t length) {
    Guard guard(boardLock());
    if (offset % kSector != 0 || length % kSector != 0 || length == 0) return EINVAL;
    if (offset > kSize || length > kSize - offset) return EINVAL;
    const auto part = [offset](Cells& cells, size_t bytes) { eraseCells(cells, offset, bytes); };
    if (!begin("erase " + hexNumber(offset) + ", " + hexNumber(length) + " bytes", length, part)) {
        return EIO;
    }
    if (mListener) mListener();
    int error = 0;
    for (uint32_t at = offset; at < offset + length && error == 0; at += kSector) {
        const auto fault = faultOf(Call::kFlashErase);
        mBoard.spendDeviceTime(kSectorErase, "flash erase");
        if (!fault) eraseCells(mCells, at, kSector);
        if (fault) error = fault->error;
        if (error == 0) tell("erase", at + kSector - offset, length);
    }
    save();
    note(error == 0 ? "erased" : "erase failed");
    return error;
}

int SerialFlash::program(uint32_t offset, std::span<const uint8_t> data) {
    Guard guard(boardLock());
    if (offset > kSize || data.size() > kSize - offset) return ENOSPC;
    const std::string text = "program " + hexNumber(offset) + ", " +
                             hexNumber(static_cast<uint32_t>(data.size())) + " bytes";
    const auto part = [offset, data](Cells& cells, size_t bytes) {
        programCells(cells, offset, data.first(bytes));
    };
    if (!begin(text, data.size(), part)) return EIO;
    if (mListener) mListener();
    int error = 0;
    for (size_t done = 0; done < data.size() && error == 0;) {
        const auto at = static_cast<uint32_t>(offset + done);
        const size_t size = std::min<size_t>(kPage - at % kPage, data.size() - done);
        const auto fault = faultOf(Call::kFlashProgram);
        mBoard.spendDeviceTime(kPageProgram, "flash program");
        if (!fault) {
            checkErased(at, size);
            programCells(mCells, at, data.subspan(done, size));
        }
        if (fault) error = fault->error;
        done += size;
        if (error == 0) tell("program", done, data.size());
    }
    save();
    note(error == 0 ? "programmed" : "programming failed");
    return error;
}

void SerialFlash::tell(const char* operation, size_t done, size_t size) const {
    if (mProgress) mProgress(operation, static_cast<double>(done) / static_cast<double>(size));
}

void SerialFlash::eraseCells(Cells& cells, uint32_t offset, size_t length) {
    if (offset >= cells.size()) return;
    const size_t end = std::min(cells.size(), offset + length);
    std::fill(cells.begin() + offset, cells.begin() + static_cast<ptrdiff_t>(end), kErased);
}

void SerialFlash::programCells(Cells& cells, uint32_t offset, std::span<const uint8_t> data) {
    if (cells.size() < offset + data.size()) cells.resize(offset + data.size(), kErased);
    for (size_t i = 0; i < data.size(); ++i) cells[offset + i] &= data[i];
}

void SerialFlash::checkErased(uint32_t offset, size_t length) {
    const auto cells = read(offset, length);
    if (std::all_of(cells.begin(), cells.end(), [](uint8_t cell) { return cell == kErased; }))
        return;
    mBoard.violation(kFlashDevice, "page " + hexNumber(offset) + " is not erased");
}

size_t SerialFlash::usedOf(const Cells& cells) {
    size_t used = cells.size();
    while (used > 0 && cells[used - 1] == kErased) --used;
    return used;
}

void SerialFlash::keep(const Cells& cells, Store& store) {
    store.replace(kCellsFile, textOf(cells).substr(0, usedOf(cells)));
}

}  // namespace quil::board
