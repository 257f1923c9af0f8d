// The cells of a flash memory. What was never programmed costs nothing: the memory behind them is
// used again by the next flash of that size, and only what was touched is erased and copied. Boards
// are made in large numbers, and most of a flash is never used.
#pragma once

#include <stdint.h>

#include <span>
#include <string_view>
#include <vector>

namespace quil::board {

class FlashCells {
  public:
    explicit FlashCells(size_t size);
    FlashCells(const FlashCells&);
    ~FlashCells();
    FlashCells& operator=(const FlashCells&) = delete;

    size_t size() const { return mCells.size(); }
    std::span<const uint8_t> all() const { return mCells; }
    // The cells up to the last one that was touched since its erasure.
    std::span<const uint8_t> touched() const { return all().first(mTouched); }
    uint8_t operator[](size_t at) const { return mCells[at]; }
    uint8_t& touch(size_t at) {
        if (mTouched <= at) mTouched = at + 1;
        return mCells[at];
    }
    void erase(size_t offset, size_t length);
    // Puts it at the start; the rest is erased.
    void load(std::string_view content);

  private:
    std::vector<uint8_t> mCells;
    size_t mTouched = 0;
};

}  // namespace quil::board
