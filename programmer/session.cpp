#include "programmer/session.h"

#include <algorithm>

#include "programmer/image_check.h"

namespace quil::programmer {

Session::Session(Transport& transport, Settings settings, Callbacks callbacks)
    : mSettings(std::move(settings)),
      mCallbacks(std::move(callbacks)),
      mWire(transport, mCallbacks),
      mJournal(mSettings.journal) {}
Session::~Session() = default;

// The one place where a session ends, well or not.
Report Session::run(const std::function<Outcome()>& work) {
    const Nanos start = mWire.now();
    try {
        open();
        mReport.outcome = work();
        if (!mLoader->leave()) mWire.say("NRST is not wired: reset the part to start it");
        if (mReport.outcome == Outcome::kProgrammed || mReport.outcome == Outcome::kDone ||
            mReport.outcome == Outcome::kAlreadyCurrent) {
            mWire.meter.finish();
        }
    } catch (const SessionEnd& end) {
        mReport.outcome = failure(end);
    } catch (const PortError& error) {
        mReport.reason = error.what();
        mReport.remedy = "check the port";
        mReport.outcome = mHasChanged ? Outcome::kFailedStateUnknown : Outcome::kRefused;
    }
    mReport.line = mWire.mode();
    mReport.statistics = mWire.statistics;
    mReport.statistics.took = mWire.now() - start;
    if (mPart != nullptr) {
        mReport.writeCeiling = mLoader->timeToWrite(mReport.statistics.bytesWritten);
        mReport.checkCeiling = mLoader->timeToCheck(mReport.statistics.bytesRead);
    }
    return mReport;
}

// A part of which nothing has changed starts its application again.
Outcome Session::failure(const SessionEnd& end) {
    mReport.reason = end.what();
    mReport.remedy = end.remedy();
    const bool isLost = dynamic_cast<const LinkLost*>(&end) != nullptr;
    if (mHasChanged) return isLost ? Outcome::kFailedStateUnknown : Outcome::kFailedLoaderWaits;
    try {
        if (mLoader) mLoader->leave();
    } catch (const std::runtime_error&) {
        // The reason that counts is the first.
    }
    return Outcome::kRefused;
}

void Session::open() {
    const Part* expected = mSettings.chip.empty() ? nullptr : partNamed(mSettings.chip);
    if (!mSettings.chip.empty() && expected == nullptr) {
        throw Refusal("there is no part " + mSettings.chip, "known: " + namesOfParts());
    }
    connect(expected);
    identify();
    if (expected == nullptr || expected == mPart) return;
    throw Refusal("the part is a " + std::string(mPart->name) + " (" + mReport.identity.text() +
                      "), not a " + expected->name,
                  "check --chip, or the board's product file");
}

// Where any part may come, an N32 is the second guess: other parts take their rate from the first
// byte that they hear.
void Session::connect(const Part* expected) {
    const bool isN32 = expected != nullptr && expected->protocol == Protocol::kN32;
    mLoader = isN32 ? makeN32(mWire, mSettings.link) : makeAn3155(mWire, mSettings.link);
    std::optional<LinkLost> silence;
    try {
        return mLoader->connect();
    } catch (const LinkLost& lost) {
        if (expected != nullptr) throw;
        silence = lost;
    }
    mLoader = makeN32(mWire, {});
    try {
        mLoader->connect();
    } catch (const LinkLost&) {
        throw LinkLost(*silence);
    }
}

void Session::identify() {
    mReport.identity = mLoader->identify();
    mPart = mReport.part = mReport.identity.part;
    if (mPart == nullptr) {
        throw Refusal("unknown part: " + mReport.identity.text(), "known: " + namesOfParts());
    }
    mLoader->use(*mPart);
    mReport.verifiedBy = mLoader->verifiesBy();
}

void Session::checkImage(std::span<const uint8_t> image) const {
    const auto problems = problemsOf(image, *mPart);
    if (problems.empty()) return;
    const bool isTooLong = image.size() > mPart->flashSize() || image.empty();
    if (mSettings.asIs && !isTooLong) return;
    throw Refusal(problems.front().what,
                  problems.front().then + (isTooLong ? "" : "; --as-is does it all the same"));
}

void Session::checkReadout() {
    mReport.readoutProtected = mLoader->readoutProtected();
    if (!mReport.readoutProtected) return;
    if (!mSettings.liftReadoutProtection) {
        throw Refusal("the part is protected against reading",
                      "--lift-protection lifts that, and erases all of its flash");
    }
    mWire.say("read-out protection is lifted: the whole flash is erased");
    mHasChanged = true;
    mLoader->unprotectReadout();
}

void Session::beginPhase(const char* name, Nanos share, size_t bytes) {
    mWire.meter.phase(name, share, mExpected, bytes, mWire.now());
    mExpected -= std::min(share, mExpected);
}

std::vector<Page> Session::pagesOf(std::span<const uint8_t> image) const {
    std::vector<Page> pages;
    for (uint32_t at = 0; at < image.size();) {
        pages.push_back(mPart->pageAt(kFlashBase + at));
        at += pages.back().size;
    }
    return pages;
}

Nanos Session::timeToErase(const std::vector<Page>& pages) {
    Nanos time{0};
    for (const Page& page : pages) time += page.erase.typical;
    return time;
}

std::span<const uint8_t> Session::imageOf(const Page& page) const {
    const size_t at = page.address - kFlashBase;
    return mImage.subspan(at, std::min<size_t>(page.size, mImage.size() - at));
}

// Most pages of another image differ in a few bytes, which are cheap to read: those at the end,
// since the vector table at the beginning is often the same. Behind a page that is equal the next
// one is likely to be so as well, and is read at once.
bool Session::pageHolds(uint32_t address, std::span<const uint8_t> expected, bool isLikely) {
    constexpr size_t kStride = 4096;
    const size_t probe = isLikely ? 0 : mLoader->probeSize();
    for (size_t rest = expected.size(); probe > 0 && rest > probe;
         rest -= std::min(rest, kStride)) {
        const size_t at = rest - probe;
        const auto start = address + static_cast<uint32_t>(at);
        if (!mLoader->holds(start, expected.subspan(at, probe))) return false;
    }
    return mLoader->holds(address, expected);
}

void Session::compareAll(std::span<const uint8_t> image, std::vector<bool>& holds) {
    mImage = image;
    const Nanos check = mLoader->timeToCheck(image.size());
    mExpected = 2 * check + mLoader->timeToWrite(image.size()) + timeToErase(pagesOf(image));
    beginPhase("compare", check, image.size());
    for (const Page& page : pagesOf(image)) {
        const bool isLikely = !holds.empty() && holds.back();
        holds.push_back(pageHolds(page.address, imageOf(page), isLikely));
    }
}

// The page of the vector table is written anew whenever another one is: until the end there is no
// image that a part would start.
Plan Session::planFor(std::span<const uint8_t> image) {
    std::vector<bool> holds;
    compareAll(image, holds);
    const auto all = pagesOf(image);
    const bool isCurrent = std::all_of(holds.begin(), holds.end(), [](bool one) { return one; });
    Plan plan;
    plan.pagesOfImage = all.size();
    for (size_t i = 0; !isCurrent && i < all.size(); ++i) {
        if (holds[i] && i > 0) continue;
        plan.pages.push_back(all[i]);
        const auto bytes = imageOf(all[i]);
        plan.bytes += bytes.size();
        plan.time += all[i].erase.typical + mLoader->timeToWrite(bytes.size()) +
                     mLoader->timeToCheck(bytes.size());
    }
    mWire.statistics.pagesEqual = all.size() - plan.pages.size();
    return plan;
}

void Session::tellEarlier(std::span<const uint8_t> image) {
    const auto earlier = mJournal.interrupted();
    if (!earlier) return;
    const bool isThis = earlier->size == image.size() && earlier->crc == crc32Of(image);
    mWire.say("an earlier session was interrupted after " + std::to_string(earlier->written) +
              " of " + std::to_string(earlier->pages) + " pages of " +
              (isThis ? "this image" : "another image, " + earlier->image) +
              ": every page is compared");
}

Report Session::flash(std::span<const uint8_t> image) {
    return run([this, image] {
        checkImage(image);
        checkReadout();
        tellEarlier(image);
        mReport.plan = planFor(image);
        if (mReport.plan.pages.empty()) {
            mJournal.finish();
            return Outcome::kAlreadyCurrent;
        }
        if (mSettings.dryRun) return Outcome::kDone;
        program(image);
        return Outcome::kProgrammed;
    });
}

Report Session::verify(std::span<const uint8_t> image) {
    return run([this, image] {
        checkReadout();
        std::vector<bool> holds;
        compareAll(image, holds);
        const auto all = pagesOf(image);
        for (size_t i = 0; i < all.size(); ++i) {
            if (holds[i]) continue;
            mReport.plan.pages.push_back(all[i]);
            if (!mReport.wrong && mLoader->probeSize() > 0) {
                const Findings found = mLoader->examine(all[i].address, imageOf(all[i]));
                mReport.wrong = found.wrong;
            }
        }
        mReport.plan.pagesOfImage = all.size();
        mWire.statistics.pagesEqual = all.size() - mReport.plan.pages.size();
        return mReport.plan.pages.empty() ? Outcome::kAlreadyCurrent : Outcome::kDiffers;
    });
}

Report Session::compare(std::span<const uint8_t> image, std::vector<bool>& holds) {
    return run([&] {
        checkReadout();
        compareAll(image, holds);
        mReport.plan.pagesOfImage = holds.size();
        return Outcome::kDone;
    });
}

Report Session::read(uint32_t address, size_t size, Bytes& into) {
    return run([&] {
        checkReadout();
        const size_t rest =
            mPart->inFlash(address) ? mPart->flashSize() - (address - kFlashBase) : 0;
        if (rest == 0 || size > rest) {
            throw Refusal("so many bytes from " + hexOf(address) + " on are not in the flash of " +
                              mPart->name,
                          "its size is " + std::to_string(mPart->flashSize()) + " bytes");
        }
        into.resize(size == 0 ? rest : size);
        mExpected = mLoader->timeToCheck(into.size());
        beginPhase("read", mExpected, into.size());
        mLoader->read(address, into);
        return Outcome::kDone;
    });
}

Report Session::info(std::span<const uint8_t> image) {
    return run([&] {
        mReport.readoutProtected = mLoader->readoutProtected();
        if (image.empty()) return Outcome::kDone;
        checkImage(image);
        checkReadout();
        mReport.plan = planFor(image);
        return mReport.plan.pages.empty() ? Outcome::kAlreadyCurrent : Outcome::kDiffers;
    });
}

Report Session::erase(const std::vector<uint32_t>& pages) {
    return run([&] {
        std::vector<Page> wanted;
        for (const uint32_t page : pages) {
            if (page >= mPart->pageCount()) {
                throw Refusal("there is no page " + std::to_string(page) + " in " + mPart->name,
                              "its pages are 0 to " + std::to_string(mPart->pageCount() - 1));
            }
            wanted.push_back(mPart->page(page));
        }
        mExpected = timeToErase(wanted);
        erasePages(wanted);
        for (const Page& page : wanted) {
            if (!mLoader->holds(page.address, Bytes(page.size, 0xFF))) {
                throw Refusal("page " + std::to_string(page.number) + " at " + hexOf(page.address) +
                                  " is not erased",
                              "it is write-protected (quilctl mcu unprotect --write) or worn");
            }
        }
        return Outcome::kDone;
    });
}

Report Session::eraseEverything() {
    return run([&] {
        mHasChanged = true;
        mExpected = mPart->massErase.typical;
        beginPhase("erase", mExpected, 0);
        mLoader->eraseEverything();
        return Outcome::kDone;
    });
}

Report Session::protectReadout() {
    return run([&] {
        mLoader->protectReadout();
        mReport.readoutProtected = true;
        return Outcome::kDone;
    });
}

Report Session::unprotectReadout() {
    return run([&] {
        mHasChanged = true;
        mExpected = mPart->massErase.typical;
        beginPhase("erase", mExpected, 0);
        mLoader->unprotectReadout();
        return Outcome::kDone;
    });
}

Report Session::protectPages(const std::vector<uint8_t>& sectors) {
    return run([&] {
        mLoader->protectPages(sectors);
        return Outcome::kDone;
    });
}

Report Session::unprotectPages() {
    return run([&] {
        mLoader->unprotectPages();
        return Outcome::kDone;
    });
}

}  // namespace quil::programmer
