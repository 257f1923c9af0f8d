// The part of a session that erases and writes.
#include <algorithm>

#include "programmer/bytes.h"
#include "programmer/session.h"

namespace quil::programmer {
namespace {

constexpr size_t kPagesAtOnce = 16;  // of one erase command: bounds what a lost answer costs
constexpr int kMostRepairs = 3;      // of a page that does not take its bytes

}  // namespace

// The bytes that make a part start an image: they are written last of all.
size_t Session::firstBlock() const { return std::min<size_t>(mPart->blockSize, mImage.size()); }

// A boot loader erases a list from its beginning: the page of the vector table goes first.
void Session::program(std::span<const uint8_t> image) {
    const std::vector<Page>& changed = mReport.plan.pages;
    const JournalEntry entry{mSettings.imageName, image.size(),   crc32Of(image),
                             mPart->name,         changed.size(), 0};
    if (!mJournal.begin(entry)) {
        mWire.say("no journal: " + mSettings.journal.string() + " cannot be written");
    }
    mHasChanged = true;
    mExpected = mReport.plan.time;
    for (size_t at = 0; at < changed.size(); at += kPagesAtOnce) {
        const size_t end = std::min(at + kPagesAtOnce, changed.size());
        const auto from = [&](size_t first) {
            return std::vector<Page>(changed.begin() + static_cast<ptrdiff_t>(first),
                                     changed.begin() + static_cast<ptrdiff_t>(end));
        };
        erasePages(from(at));
        writePages(from(std::max<size_t>(at, 1)));
    }
    verifyPages({changed.begin() + 1, changed.end()});
    programVectorPage(changed.front());
    mJournal.finish();
}

void Session::erasePages(const std::vector<Page>& pages) {
    mHasChanged = true;
    for (size_t at = 0; at < pages.size(); at += kPagesAtOnce) {
        const auto some = std::span(pages).subspan(at, std::min(kPagesAtOnce, pages.size() - at));
        beginPhase("erase", timeToErase({some.begin(), some.end()}), 0);
        std::vector<uint32_t> numbers;
        for (const Page& page : some) numbers.push_back(page.number);
        mLoader->erase(numbers);
    }
}

void Session::writePages(const std::vector<Page>& pages) {
    size_t bytes = 0;
    for (const Page& page : pages) bytes += imageOf(page).size();
    beginPhase("write", mLoader->timeToWrite(bytes), bytes);
    for (const Page& page : pages) {
        writePage(page, 0);
        mJournal.written(page.number);
    }
}

void Session::verifyPages(const std::vector<Page>& pages) {
    size_t bytes = 0;
    for (const Page& page : pages) bytes += imageOf(page).size();
    beginPhase("verify", mLoader->timeToCheck(bytes), bytes);
    for (const Page& page : pages) mend(page, 0, imageOf(page).size());
}

// The first block goes in when everything else is in the flash and verified.
void Session::programVectorPage(const Page& page) {
    writeVectorPage(page);
    mend(page, 0, firstBlock());
    mJournal.written(page.number);
}

void Session::writeVectorPage(const Page& page) {
    const auto bytes = imageOf(page);
    const size_t first = firstBlock();
    beginPhase("write", mLoader->timeToWrite(bytes.size()), bytes.size());
    writePage(page, first);
    beginPhase("verify", mLoader->timeToCheck(bytes.size()), bytes.size());
    mend(page, first, bytes.size());
    writeStretch(page.address, bytes.first(first));
}

// Blocks of 0xFF are what the erase has left.
void Session::writePage(const Page& page, size_t from) {
    const auto bytes = imageOf(page);
    ++mWire.statistics.pagesWritten;
    if (from < bytes.size()) {
        writeStretch(page.address + static_cast<uint32_t>(from), bytes.subspan(from));
    }
}

void Session::writeStretch(uint32_t address, std::span<const uint8_t> bytes) {
    for (size_t at = 0; at < bytes.size(); at += mPart->blockSize) {
        const auto block = bytes.subspan(at, std::min<size_t>(mPart->blockSize, bytes.size() - at));
        if (isBlank(block)) {
            mWire.meter.advance(block.size(), mWire.now());
        } else {
            mLoader->write(address + static_cast<uint32_t>(at), block);
        }
    }
}

// Verifies these bytes of the page. What is missing is written; only what cannot be written over
// costs an erase, and with it the page's other bytes.
void Session::mend(const Page& page, size_t from, size_t to) {
    if (from >= to) return;
    const auto bytes = imageOf(page);
    const auto start = page.address + static_cast<uint32_t>(from);
    const auto wanted = bytes.subspan(from, to - from);
    for (int repairs = 0; !mLoader->holds(start, wanted); ++repairs) {
        const Findings found = mLoader->examine(start, wanted);
        if (found.equal()) return mWire.statistics.count(Trouble::kFlippedBit);
        mWire.statistics.count(Trouble::kWrongCell);
        if (repairs == kMostRepairs) wornCell(page, found);
        if (found.wrong) {
            erasePages({page});
            if (from > 0 || page.address != kFlashBase) {
                writePage(page, from);
            } else {
                writeVectorPage(page);
            }
        }
        for (const Region& missing : found.missing) {
            if (found.wrong) break;
            writeStretch(missing.base, bytes.subspan(missing.base - page.address, missing.size));
        }
    }
}

void Session::wornCell(const Page& page, const Findings& findings) const {
    const char* const kRemedy =
        "the flash is worn there, or its page is write-protected (quilctl mcu unprotect --write): "
        "otherwise replace the part";
    if (!findings.wrong) {
        throw Refusal("page " + std::to_string(page.number) + " at " + hexOf(page.address) +
                          " does not take its bytes",
                      kRemedy);
    }
    const Findings::Cell& cell = *findings.wrong;
    const std::string tries = " after " + std::to_string(kMostRepairs) + " erases";
    if (!cell.found) {
        throw Refusal("a cell of the word at " + hexOf(cell.address) + " is wrong" + tries,
                      kRemedy);
    }
    throw Refusal("the cell at " + hexOf(cell.address) + " holds " + hexOf(*cell.found, 2) +
                      ", not " + hexOf(cell.wanted, 2) + tries,
                  kRemedy);
}

}  // namespace quil::programmer
