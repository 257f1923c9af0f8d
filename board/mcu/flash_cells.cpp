#include "board/mcu/flash_cells.h"

#include <algorithm>
#include <utility>

#include "board/core/lock.h"

namespace quil::board {
namespace {

constexpr uint8_t kErasedCell = 0xFF;

// Erased memories without a flash. Never destroyed: a board may outlive the end of the program.
std::vector<std::vector<uint8_t>>& spares() {
    static auto* spares = new std::vector<std::vector<uint8_t>>;
    return *spares;
}

std::vector<uint8_t> takeErased(size_t size) {
    Guard guard(boardLock());
    const auto spare = std::find_if(spares().begin(), spares().end(),
                                    [size](const auto& cells) { return cells.size() == size; });
    if (spare == spares().end()) return std::vector<uint8_t>(size, kErasedCell);
    std::swap(*spare, spares().back());
    std::vector<uint8_t> cells = std::move(spares().back());
    spares().pop_back();
    return cells;
}

void giveBack(std::vector<uint8_t> cells) {
    constexpr size_t kSparesMost = 8;
    Guard guard(boardLock());
    if (spares().size() < kSparesMost) spares().push_back(std::move(cells));
}

}  // namespace

FlashCells::FlashCells(size_t size) : mCells(takeErased(size)) {}

FlashCells::FlashCells(const FlashCells& other)
    : mCells(takeErased(other.size())), mTouched(other.mTouched) {
    std::copy_n(other.mCells.begin(), mTouched, mCells.begin());
}

FlashCells::~FlashCells() {
    erase(0, mTouched);
    giveBack(std::move(mCells));
}

void FlashCells::erase(size_t offset, size_t length) {
    const size_t end = std::min(offset + length, mTouched);
    if (offset >= end) return;
    std::fill(mCells.begin() + static_cast<ptrdiff_t>(offset),
              mCells.begin() + static_cast<ptrdiff_t>(end), kErasedCell);
    if (end == mTouched) mTouched = offset;
}

void FlashCells::load(std::string_view content) {
    erase(0, mTouched);
    std::copy(content.begin(), content.end(), mCells.begin());
    mTouched = content.size();
}

}  // namespace quil::board
