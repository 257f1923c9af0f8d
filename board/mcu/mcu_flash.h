// The flash memory of the microcontroller, kept in one file, with its protection in a second one,
// "option_bytes", beside it.
//
// NOR: an erase sets every bit of a page, programming clears bits, and a unit must be erased before
// it is programmed. An operation takes its time. The cells change when it is finished; a power cut
// before that leaves it partly done.
#pragma once

#include <stdint.h>

#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "board/core/bytes.h"
#include "board/core/store.h"
#include "board/core/trace.h"
#include "board/mcu/flash_cells.h"
#include "board/mcu/mcu_parts.h"

namespace quil::board {

class McuFlash {
  public:
    struct Page {
        uint32_t offset, size;
    };

    // The file holds the flash from its start; what lies behind the file's end is erased.
    McuFlash(const McuPart&, Store&, std::string file);
    ~McuFlash();
    McuFlash& operator=(const McuFlash&) = delete;
    // The same flash with the same operation under way, kept in another store.
    McuFlash copyIn(Store&) const;

    const McuPart& part() const { return mPart; }
    std::span<const uint8_t> cells() const { return mCells.all(); }
    Page page(uint32_t number) const;
    uint32_t pageAt(uint32_t offset) const;
    // For tests and tools: erases everything and puts `image` at the start.
    void load(std::string_view image);

    // Operations, one at a time; each start returns how long it will take. Write-protected pages
    // are skipped without an error, as in the real part.
    Nanos startErase(const std::vector<uint32_t>& pages);
    Nanos startMassErase();
    // Erases everything, protected pages too, and ends read-out protection with it.
    Nanos startUnprotect();
    Nanos startWriteOptions(bool readoutProtected, std::set<uint32_t> writeProtectedPages);
    Nanos startProgram(uint32_t offset, std::span<const uint8_t> bytes);
    bool busy() const { return mOperation.kind != Operation::kNone; }
    // Ends the operation. Returns the rule that it broke, "" if none.
    std::string finish();
    // Power goes, with so much of the operation under way done.
    void powerLost(const Tear&);

    // Operations take typical times. With a seed other than 0 they take times between these and the
    // longest ones, or always the longest ones.
    void drawTimes(uint64_t seed);
    void takeLongestTimes() { mIsSlowest = true; }

    // Protection is kept without power, in the option bytes.
    bool readoutProtected() const { return mReadoutProtected; }
    void setReadoutProtected(bool);
    const std::set<uint32_t>& writeProtectedPages() const { return mWriteProtected; }
    void setWriteProtected(std::set<uint32_t> pages);

    // Worn cells: these bits of the byte read as 0, or as 1, for good. They do not keep a unit from
    // being programmed. Kept with the protection.
    struct Wear {
        uint8_t stuckLow = 0, stuckHigh = 0;
    };
    void wear(uint32_t offset, Wear);

    void saveIn(Store&) const;  // if something changed
    void save();                // writes the files if something changed; the destructor does so too

  private:
    McuFlash(const McuFlash&) = default;

    struct Operation {
        enum Kind { kNone, kErase, kMassErase, kUnprotect, kOptions, kProgram } kind = kNone;
        std::vector<uint32_t> pages = {};
        uint32_t offset = 0;
        std::vector<uint8_t> bytes = {};
        bool readoutProtected = false;
        std::set<uint32_t> writeProtected = {};
    };
    bool isProtected(uint32_t offset) const;
    bool erased(uint32_t offset, uint32_t size) const;
    Nanos timeOf(const FlashTime&) const;
    Nanos eraseTimeOf(uint32_t page) const;
    std::vector<uint32_t> allPages() const;
    void erase(const Page&);
    std::string program(uint32_t offset, std::span<const uint8_t> bytes);
    void loadOptions();
    void readWorn();

    const McuPart& mPart;
    Store* mStore;
    const std::string mFile, mOptionsFile;
    FlashCells mCells;
    uint64_t mTimesSeed = 0;
    bool mIsSlowest = false;
    Operation mOperation;
    bool mReadoutProtected = false;
    std::set<uint32_t> mWriteProtected;
    std::map<uint32_t, Wear> mWorn;
    bool mChanged = false, mOptionsChanged = false;
};

}  // namespace quil::board
