#include "programmer/an3155.h"

#include <algorithm>

#include "programmer/bytes.h"

namespace quil::programmer {
namespace {

constexpr uint8_t kGet = 0x00, kGetId = 0x02, kGdPid = 0x06, kRead = 0x11, kWrite = 0x31,
                  kErase = 0x43, kExtendedErase = 0x44, kReadoutUnprotect = 0x92,
                  kWriteProtect = 0x63;
constexpr size_t kReadBlock = 256;
constexpr int kTries = 10, kNacks = 4;
// Bytes of a block beside its data, both directions: command, address, count and checksum.
constexpr size_t kWriteFrame = 2 + 1 + 5 + 1 + 2 + 1, kReadFrame = 2 + 1 + 5 + 1 + 2 + 1;
constexpr Nanos kJunkWait = std::chrono::milliseconds(50);

Bytes withXor(Bytes bytes) {
    bytes.push_back(xorOf(bytes));
    return bytes;
}

}  // namespace

std::unique_ptr<BootLoader> makeAn3155(Wire& wire, const ConnectOptions& options) {
    return std::make_unique<An3155>(wire, options);
}

An3155::An3155(Wire& wire, const ConnectOptions& options)
    : mWire(wire), mOptions(options), mMode{options.baud, 'E'} {}
An3155::~An3155() = default;

An3155::Answer An3155::ask(std::span<const uint8_t> request, Nanos busy) {
    mLast.assign(request.begin(), request.end());
    mWasDamaged = false;
    ++mAsked;
    uint8_t byte = 0;
    if (mWire.exchange(request, {&byte, 1}, busy) == 0) return Answer::kNone;
    return judge(byte, busy);
}

// Skips what is neither ACK nor NACK. What comes alone in their place is a damaged answer.
An3155::Answer An3155::judge(uint8_t byte, Nanos busy) {
    constexpr int kMost = 64;
    int junk = 0;
    while (byte != kAck && byte != kNack) {
        if (++junk > kMost || mWire.read({&byte, 1}, busy + kJunkWait) == 0) {
            mWasDamaged = true;
            mWire.statistics.count(Trouble::kDamagedAck);
            return Answer::kNone;
        }
    }
    if (junk > 0) mWire.statistics.count(Trouble::kJunk);
    return byte == kAck ? Answer::kAck : Answer::kNack;
}

An3155::Attempt An3155::command(uint8_t code) {
    const uint8_t request[] = {code, static_cast<uint8_t>(~code)};
    return {ask(request, Nanos(0)), Phase::kCommand, Nanos(0), code};
}

An3155::Attempt An3155::addressed(uint8_t code, uint32_t address) {
    Attempt attempt = command(code);
    if (!attempt.ok()) return attempt;
    Bytes request;
    for (const int shift : {24, 16, 8, 0})
        request.push_back(static_cast<uint8_t>(address >> shift));
    attempt.phase = Phase::kAddress;
    attempt.answer = ask(withXor(std::move(request)), Nanos(0));
    return attempt;
}

// ACK, a length, so many bytes (AN3155 counts one less), ACK.
An3155::Attempt An3155::reply(uint8_t code, Bytes& data) {
    Attempt attempt = command(code);
    if (!attempt.ok()) return attempt;
    uint8_t length = 0;
    attempt.answer = Answer::kNone;
    attempt.phase = Phase::kCount;
    if (mWire.read({&length, 1}, Wire::kMargin) == 0) return attempt;
    data.resize(length + (code == kGdPid ? 1U : 2U));
    const Nanos line = mWire.mode().timeOf(data.size());
    const size_t got = mWire.read(data, line + Wire::kMargin);
    if (got < data.size() || data.back() != kAck) {
        mWasDamaged = true;
        mWire.statistics.count(got < data.size() ? Trouble::kShortReply : Trouble::kDamagedAck);
        return attempt;
    }
    data.pop_back();
    attempt.answer = Answer::kAck;
    return attempt;
}

An3155::Attempt An3155::readOnce(uint32_t address, std::span<uint8_t> into) {
    Attempt attempt = addressed(kRead, address);
    if (!attempt.ok()) return attempt;
    attempt.phase = Phase::kCount;
    const auto count = static_cast<uint8_t>(into.size() - 1);
    const uint8_t request[] = {count, static_cast<uint8_t>(~count)};
    mLast.assign(request, request + 2);
    mWasDamaged = false;
    ++mAsked;
    Bytes answer(into.size() + 1);
    size_t got = mWire.exchange(request, answer, Nanos(0));
    attempt.answer = got == 0 ? Answer::kNone : judge(answer[0], Nanos(0));
    if (got > 1 && answer[0] != kAck) {  // junk before it: as many bytes are missing at the end
        answer.resize(got);
        answer.erase(answer.begin(), std::find(answer.begin(), answer.end(), kAck));
        got = answer.size();
        attempt.answer = got == 0 ? Answer::kNone : Answer::kAck;
        answer.resize(into.size() + 1);
        if (got > 0) got += mWire.read(std::span(answer).subspan(got), kJunkWait);
        mWire.statistics.count(Trouble::kJunk);
    }
    if (!attempt.ok()) return attempt;
    if (got < answer.size()) {
        mWasDamaged = true;
        mWire.statistics.count(Trouble::kShortReply);
        attempt.answer = Answer::kNone;
        return attempt;
    }
    std::copy(answer.begin() + 1, answer.end(), into.begin());
    return attempt;
}

An3155::Attempt An3155::writeOnce(uint32_t address, std::span<const uint8_t> block) {
    Attempt attempt = addressed(kWrite, address);
    if (!attempt.ok()) return attempt;
    Bytes request = {static_cast<uint8_t>(block.size() - 1)};
    request.insert(request.end(), block.begin(), block.end());
    attempt.phase = Phase::kData;
    attempt.busy = mPart->block.most;
    attempt.answer = ask(withXor(std::move(request)), attempt.busy);
    return attempt;
}

An3155::Attempt An3155::eraseOnce(const Bytes& list, Nanos busy) {
    Attempt attempt = command(eraseCode());
    if (!attempt.ok()) return attempt;
    attempt.phase = Phase::kData;
    attempt.busy = busy;
    attempt.answer = ask(list, busy);
    return attempt;
}

// A list where the command has one, then the second ACK, then the part resets.
An3155::Attempt An3155::optionsOnce(uint8_t code, const Bytes& list, Nanos busy) {
    Attempt attempt = command(code);
    if (!attempt.ok()) return attempt;
    attempt.phase = Phase::kData;
    attempt.busy = busy;
    attempt.answer = ask(list, busy);
    return attempt;
}

// `isDone` is asked after a failure in the last phase: the work may be done although its answer
// did not come.
void An3155::repeat(const char* what, const Once& once, const std::function<bool()>& isDone) {
    int nacks = 0;
    for (int tries = 0; tries < kTries; ++tries) {
        const Attempt attempt = once();
        if (attempt.ok()) return;
        if (attempt.answer == Answer::kNack) {
            mWire.statistics.count(Trouble::kNack);
            if (++nacks == kNacks) refuse(what, attempt);
            // Not the first: perhaps half a command is pending, and each one to come is wrong.
            if (nacks > 1) settle();
        } else {
            nacks = 0;
            backInStep(attempt);
        }
        badAnswer();
        if (isDone && attempt.phase == Phase::kData && isDone()) return;
    }
    throw LinkLost(std::string(what) + ": ten attempts failed",
                   "check the line, or try a lower --baud");
}

void An3155::refuse(const char* what, const Attempt& attempt) const {
    const std::string did = std::string(what) + ": the boot loader refuses ";
    switch (attempt.phase) {
        case Phase::kCommand:
            throw Refusal(did + "the command " + hexOf(attempt.code, 2) + ": read-out protection",
                          "quilctl mcu unprotect --readout lifts it, and erases the whole flash");
        case Phase::kAddress:
            throw Refusal(did + "the address: the part has no memory there",
                          "compare the part's density with the image's size");
        case Phase::kCount:
        case Phase::kData:
            break;
    }
    throw Refusal(did + "the data: write protection, or cells that are not erased",
                  "quilctl mcu unprotect --write lifts the protection of pages");
}

// Identification is read until two readings in a row agree: a flipped bit makes another part.
Bytes An3155::agreedReply(uint8_t code) {
    Bytes before, data;
    for (int tries = 0; tries < kTries; ++tries) {
        repeat("identification", [&] { return reply(code, data); });
        if (tries > 0 && data == before) return data;
        before = data;
    }
    throw LinkLost("identification: no two readings agree", "check the line");
}

Identity An3155::identify() {
    Identity identity;
    const Bytes get = agreedReply(kGet);
    if (get.empty()) throw Refusal("identification: the boot loader names no version", "");
    identity.loaderVersion = get[0];
    identity.commands.assign(get.begin() + 1, get.end());
    mIdentity = identity;
    for (const uint8_t byte : agreedReply(kGetId)) {
        identity.productId = static_cast<uint16_t>(identity.productId << 8 | byte);
    }
    for (const Part& part : parts()) {
        if (part.protocol != Protocol::kAn3155 || part.productId != identity.productId) continue;
        if (part.gdPids[0] != 0 && identity.gdPid == 0) identity.gdPid = gdPid();
        const bool isNamed =
            std::find(part.gdPids.begin(), part.gdPids.end(), identity.gdPid) != part.gdPids.end();
        if (isNamed) identity.part = &part;
    }
    mIdentity = identity;
    return identity;
}

// The GD32's own command, which Get does not list; other parts with the same number refuse it.
uint32_t An3155::gdPid() {
    Bytes bytes;
    try {
        bytes = agreedReply(kGdPid);
    } catch (const Refusal&) {
        return 0;
    }
    uint32_t pid = 0;
    for (size_t i = std::min<size_t>(bytes.size(), 4); i-- > 0;) pid = pid << 8 | bytes[i];
    return pid;
}

bool An3155::offers(uint8_t code) const {
    const Bytes& known = mIdentity.commands;
    return std::find(known.begin(), known.end(), code) != known.end();
}

bool An3155::readoutProtected() {
    int nacks = 0;
    std::array<uint8_t, 4> bytes{};
    while (nacks < kNacks) {
        const Attempt attempt = readOnce(kFlashBase, bytes);
        if (attempt.ok()) return false;
        if (attempt.answer == Answer::kNack) {
            if (++nacks > 1) settle();
        } else {
            backInStep(attempt);
            badAnswer();
        }
    }
    return true;
}

void An3155::readBlock(uint32_t address, std::span<uint8_t> into) {
    const Nanos start = mWire.now();
    repeat("read", [&] { return readOnce(address, into); });
    mWire.statistics.bytesRead += into.size();
    mWire.statistics.checking += mWire.now() - start;
}

void An3155::read(uint32_t address, std::span<uint8_t> into) {
    for (size_t at = 0; at < into.size(); at += kReadBlock) {
        const size_t size = std::min(kReadBlock, into.size() - at);
        readBlock(address + static_cast<uint32_t>(at), into.subspan(at, size));
        mWire.meter.advance(size, mWire.now());
    }
}

// What two of three readings say, of which the first is given.
Bytes An3155::voted(uint32_t address, Bytes first) {
    Bytes second(first.size()), third(first.size());
    readBlock(address, second);
    if (first == second) return first;
    readBlock(address, third);
    mWire.statistics.count(Trouble::kFlippedBit);
    for (size_t i = 0; i < third.size(); ++i) {
        if (first[i] == second[i]) third[i] = first[i];
    }
    return third;
}

// One reading is enough where it is as expected.
Bytes An3155::votedBlock(uint32_t address, std::span<const uint8_t> expected) {
    Bytes first(expected.size());
    readBlock(address, first);
    if (std::equal(first.begin(), first.end(), expected.begin())) return first;
    return voted(address, std::move(first));
}

// More than a few wrong bytes are no flipped bits: there is nothing to vote about.
bool An3155::holds(uint32_t address, std::span<const uint8_t> expected) {
    constexpr int kFew = 2;
    for (size_t at = 0; at < expected.size(); at += kReadBlock) {
        const auto block = expected.subspan(at, std::min(kReadBlock, expected.size() - at));
        const auto start = address + static_cast<uint32_t>(at);
        Bytes found(block.size());
        readBlock(start, found);
        int wrong = 0;
        for (size_t i = 0; i < block.size(); ++i) wrong += found[i] != block[i] ? 1 : 0;
        if (wrong > kFew) return false;
        if (wrong > 0) found = voted(start, std::move(found));
        if (!std::equal(found.begin(), found.end(), block.begin())) return false;
        mWire.meter.advance(block.size(), mWire.now());
    }
    return true;
}

Findings An3155::examine(uint32_t address, std::span<const uint8_t> expected) {
    Findings findings;
    const size_t unit = mPart->programUnit;
    for (size_t at = 0; at < expected.size(); at += kReadBlock) {
        const auto block = expected.subspan(at, std::min(kReadBlock, expected.size() - at));
        const auto start = address + static_cast<uint32_t>(at);
        const Bytes found = votedBlock(start, block);
        for (size_t i = 0; i < block.size(); i += unit) {
            const size_t size = std::min(unit, block.size() - i);
            const std::span<const uint8_t> is(&found[i], size), wanted = block.subspan(i, size);
            const auto [wrong, right] = std::mismatch(is.begin(), is.end(), wanted.begin());
            if (wrong == is.end()) continue;
            const auto offset = static_cast<uint32_t>(i);
            if (isBlank(is)) {
                findings.missing.push_back({start + offset, static_cast<uint32_t>(size)});
            } else if (!findings.wrong) {
                const auto in = static_cast<uint32_t>(wrong - is.begin());
                findings.wrong = Findings::Cell{start + offset + in, *wrong, *right};
            }
        }
    }
    return findings;
}

// After a write that was not acknowledged: nothing of it is in the flash, or verification decides.
bool An3155::isLeftToVerify(uint32_t address, std::span<const uint8_t> block) {
    return !isBlank(votedBlock(address, block));
}

void An3155::write(uint32_t address, std::span<const uint8_t> block) {
    Bytes padded(block.begin(), block.end());
    const size_t unit = std::max<size_t>(mPart->programUnit, 4);
    padded.resize((padded.size() + unit - 1) / unit * unit, 0xFF);
    const Nanos start = mWire.now();
    repeat(
        "write", [&] { return writeOnce(address, padded); },
        [&] { return isLeftToVerify(address, padded); });
    mWire.statistics.writing += mWire.now() - start;
    mWire.statistics.bytesWritten += block.size();
    mWire.meter.advance(block.size(), mWire.now());
}

void An3155::erase(const std::vector<uint32_t>& pages) {
    Bytes list;
    const bool extended = eraseCode() == kExtendedErase;
    const auto append = [&](size_t value) {
        if (extended) list.push_back(static_cast<uint8_t>(value >> 8));
        list.push_back(static_cast<uint8_t>(value));
    };
    append(pages.size() - 1);
    for (const uint32_t page : pages) {
        if (!extended && page > 0xFF) {
            throw Refusal("erase: the boot loader's command takes pages up to 255 only", "");
        }
        append(page);
    }
    // The short form's checksum includes the count, as the long form's does.
    list = withXor(std::move(list));
    Nanos most{0};
    for (const uint32_t page : pages) most += mPart->page(page).erase.most;
    repeat("erase", [&] { return eraseOnce(list, most); });
    mWire.statistics.pagesErased += pages.size();
}

void An3155::eraseEverything() {
    const Bytes list = eraseCode() == kErase ? Bytes{0xFF, 0x00} : Bytes{0xFF, 0xFF, 0x00};
    repeat("erase", [&] { return eraseOnce(list, mPart->massErase.most); });
    mWire.statistics.pagesErased += mPart->pageCount();
}

void An3155::protectPages(const std::vector<uint8_t>& sectors) {
    Bytes list = {static_cast<uint8_t>(sectors.size() - 1)};
    list.insert(list.end(), sectors.begin(), sectors.end());
    changeOptions(kWriteProtect, withXor(std::move(list)), mPart->options.most);
}

void An3155::unprotectReadout() {
    changeOptions(kReadoutUnprotect, {}, mPart->massErase.most + mPart->options.most);
}

void An3155::changeOptions(uint8_t code, const Bytes& list, Nanos busy) {
    repeat("option bytes", [&] { return optionsOnce(code, list, busy); });
    mWire.pause(std::chrono::milliseconds(20));  // the part resets
    connect();
}

Nanos An3155::timeToWrite(size_t bytes) const {
    const size_t blocks = (bytes + mPart->blockSize - 1) / mPart->blockSize;
    return mWire.mode().timeOf(bytes + blocks * kWriteFrame) +
           mPart->block.typical * static_cast<int64_t>(blocks);
}

Nanos An3155::timeToCheck(size_t bytes) const {
    const size_t blocks = (bytes + kReadBlock - 1) / kReadBlock;
    return mWire.mode().timeOf(bytes + blocks * kReadFrame);
}

}  // namespace quil::programmer
