#include "programmer/n32.h"

#include <algorithm>
#include <array>

#include "programmer/bytes.h"

namespace quil::programmer {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr uint8_t kStart0 = 0xAA, kStart1 = 0x55, kSuccess = 0xA0;
constexpr uint8_t kHandshake = 0x01, kGetInfo = 0x10, kFlashErase = 0x30, kDownload = 0x31,
                  kCrc = 0x32;
constexpr size_t kKeySize = 16, kInfoSize = 51, kUnit = 16, kWord = 4;
constexpr size_t kAnswerFrame = 9, kPayloadAt = 6, kRequestFrame = 11;
constexpr uint32_t kHandshakeParameter = 0x80250000;  // 9,600 with the highest byte first
constexpr LineMode kLine{9600, 'N'};
constexpr int kFrameTries = 25, kRefusals = 3;
constexpr Nanos kN32ResetHold = milliseconds(20), kN32Start = milliseconds(50);
// A request that breaks off is forgotten after 100 ms.
constexpr Nanos kForgets = milliseconds(120), kN32Patience = seconds(5);
constexpr Nanos kTurnaround = milliseconds(2);

void appendLittle(Bytes& bytes, uint32_t value, int count) {
    for (int i = 0; i < count; ++i) bytes.push_back(static_cast<uint8_t>(value >> 8 * i));
}

}  // namespace

std::unique_ptr<BootLoader> makeN32(Wire& wire, const ConnectOptions& options) {
    return std::make_unique<N32>(wire, options);
}

N32::N32(Wire& wire, const ConnectOptions& options) : mWire(wire), mOptions(options) {}
N32::~N32() = default;

// Polynomial 0x04C11DB7, a word at a time, its most significant bit first, no final inversion: the
// part's CRC unit.
uint32_t N32::crcOf(std::span<const uint8_t> bytes) {
    uint32_t crc = 0xFFFFFFFF;
    for (size_t at = 0; at + kWord <= bytes.size(); at += kWord) {
        for (size_t i = 0; i < kWord; ++i) crc ^= static_cast<uint32_t>(bytes[at + i]) << 8 * i;
        for (int bit = 0; bit < 32; ++bit) crc = crc << 1 ^ (crc >> 31 != 0 ? 0x04C11DB7U : 0U);
    }
    return crc;
}

N32::Answer N32::ask(const Request& request, Bytes* data) {
    Bytes frame = {kStart0, kStart1, request.command, 0};
    appendLittle(frame, static_cast<uint32_t>(request.payload.size()), 2);
    appendLittle(frame, request.parameter, 4);
    frame.insert(frame.end(), request.payload.begin(), request.payload.end());
    frame.push_back(xorOf(frame));
    Bytes heard(kAnswerFrame + request.answerSize);
    heard.resize(mWire.exchange(frame, heard, request.busy));
    return answerIn(heard, request, data);
}

// Finds the answer to the request in what was heard; reads on where junk came before it.
N32::Answer N32::answerIn(Bytes& heard, const Request& request, Bytes* data) {
    constexpr size_t kMostJunk = 256;
    const size_t size = kAnswerFrame + request.answerSize;
    bool junk = false;
    mWasDamaged = !heard.empty();
    for (size_t skipped = 0; !heard.empty() && skipped < kMostJunk;) {
        if (heard.size() < size) {
            Bytes more(size - heard.size());
            more.resize(mWire.read(more, mWire.mode().timeOf(more.size()) + milliseconds(50)));
            if (more.empty()) break;
            heard.insert(heard.end(), more.begin(), more.end());
            continue;
        }
        const bool isAnswer = heard[0] == kStart0 && heard[1] == kStart1 &&
                              heard[2] == request.command &&
                              xorOf(std::span(heard).first(size)) == 0;
        if (!isAnswer) {
            heard.erase(heard.begin());
            junk = true;
            ++skipped;
            continue;
        }
        if (junk) mWire.statistics.count(Trouble::kJunk);
        mWasDamaged = false;
        if (data != nullptr) data->assign(heard.begin() + kPayloadAt, heard.end() - 3);
        return heard[size - 3] == kSuccess && heard[size - 2] == 0 ? Answer::kDone
                                                                   : Answer::kRefused;
    }
    if (mWasDamaged) {
        mWire.statistics.count(junk ? Trouble::kDamagedAck : Trouble::kShortReply);
    }
    return Answer::kNone;
}

// `isDone` is asked after a failure: the work may be done although its answer did not come.
void N32::repeat(const char* what, const Request& request, Bytes* data,
                 const std::function<bool()>& isDone) {
    int refusals = 0;
    for (int tries = 0; tries < kFrameTries; ++tries) {
        const Answer answer = ask(request, data);
        if (answer == Answer::kDone) return;
        if (answer == Answer::kRefused) {
            mWire.statistics.count(Trouble::kNack);
            ++refusals;
        } else {
            backInStep(request.busy > Nanos(0));
        }
        if (isDone && isDone()) return;
        if (refusals == kRefusals) {
            throw Refusal(std::string(what) + ": the boot loader refuses it",
                          "compare the part's density and protection with the image");
        }
    }
    throw LinkLost(std::string(what) + ": 25 attempts failed", "check the line");
}

bool N32::startLoader() {
    mIsWired = mWire.lines(true, false);
    if (!mIsWired) return false;
    mWire.pause(kN32ResetHold);
    mWire.lines(true, true);
    mWire.pause(kN32Start);
    return true;
}

bool N32::leave() {
    if (!mWire.lines(false, false)) return false;
    mWire.pause(kN32ResetHold);
    mWire.lines(false, true);
    return true;
}

void N32::connect() {
    constexpr int kResets = 2;
    mWire.setMode(kLine);
    for (int resets = 0; resets < kResets; ++resets) {
        startLoader();
        if (mWire.drain(kForgets) > 0) mWire.statistics.count(Trouble::kJunk);
        if (shakeHands()) return;
    }
    noLoaderAnswers(mWire, mOptions, mIsWired);
}

bool N32::shakeHands() {
    constexpr int kAttempts = 4;
    for (int i = 0; i < kAttempts; ++i) {
        const Answer answer = ask({.command = kHandshake, .parameter = kHandshakeParameter});
        if (answer == Answer::kDone) return true;
        if (answer == Answer::kRefused) mWire.statistics.count(Trouble::kNack);
        mWire.drain(kForgets);
    }
    return false;
}

// A part that answers the handshake listens; one that does not may be at work.
void N32::backInStep(bool isOperation) {
    const bool wasDamaged = mWasDamaged;
    if (mWire.drain(kForgets) > 0) mWire.statistics.count(Trouble::kJunk);
    const Request hello{.command = kHandshake, .parameter = kHandshakeParameter};
    if (ask(hello) != Answer::kNone) {
        if (!wasDamaged) mWire.statistics.count(Trouble::kLostAnswer);
        return;
    }
    uint8_t late = 0;
    if (isOperation && mWire.read({&late, 1}, kN32Patience) > 0) {
        mWire.statistics.count(Trouble::kBusy);
        mWire.drain(kForgets);
    }
    if (shakeHands()) return;
    if (!mIsWired) noLoaderAnswers(mWire, mOptions, mIsWired);
    mWire.statistics.count(Trouble::kLineReset);
    connect();
}

Identity N32::identify() {
    Bytes info, before;
    const Request request{.command = kGetInfo, .answerSize = kInfoSize};
    for (int tries = 0; tries < kFrameTries; ++tries) {
        repeat("identification", request, &info);
        if (tries > 0 && info == before) break;
        before = info;
    }
    Identity identity;
    for (const uint8_t byte : info) {
        if (byte < ' ' || byte > '~') break;
        identity.name.push_back(static_cast<char>(byte));
    }
    const Part* part = partNamed(identity.name);
    if (part != nullptr && part->protocol == Protocol::kN32) identity.part = part;
    return identity;
}

void N32::read(uint32_t /*address*/, std::span<uint8_t> /*into*/) {
    throw Refusal("the N32's boot loader cannot read the flash out",
                  "quilctl mcu verify IMAGE compares it by CRC");
}

void N32::protectPages(const std::vector<uint8_t>& /*sectors*/) { noSuchCommand(); }

void N32::noSuchCommand() {
    throw Refusal("the N32's boot loader has no command for protection", "");
}

bool N32::crcAgrees(uint32_t address, std::span<const uint8_t> expected) {
    Bytes padded(expected.begin(), expected.end());
    padded.resize((padded.size() + kWord - 1) / kWord * kWord, 0xFF);
    Request request{.command = kCrc, .parameter = crcOf(padded), .payload = Bytes(kKeySize)};
    appendLittle(request.payload, address, 4);
    appendLittle(request.payload, static_cast<uint32_t>(padded.size()), 4);
    for (int tries = 0; tries < kFrameTries; ++tries) {
        const Answer answer = ask(request);
        if (answer != Answer::kNone) return answer == Answer::kDone;
        backInStep(false);
    }
    throw LinkLost("CRC: 25 attempts failed", "check the line");
}

// Two of three answers decide: a refusal may also be a request that arrived damaged.
bool N32::holds(uint32_t address, std::span<const uint8_t> expected) {
    const Nanos start = mWire.now();
    bool agrees = crcAgrees(address, expected);
    if (!agrees && crcAgrees(address, expected)) {
        mWire.statistics.count(Trouble::kFlippedBit);
        agrees = crcAgrees(address, expected);
    }
    mWire.statistics.checking += mWire.now() - start;
    mWire.meter.advance(expected.size(), mWire.now());
    return agrees;
}

Findings N32::examine(uint32_t address, std::span<const uint8_t> expected) {
    Findings findings;
    narrow(address, expected, findings);
    return findings;
}

void N32::narrow(uint32_t address, std::span<const uint8_t> expected, Findings& findings) {
    if (expected.empty() || holds(address, expected)) return;
    if (holds(address, Bytes(expected.size(), 0xFF))) {
        const auto size = static_cast<uint32_t>(expected.size());
        return findings.missing.push_back({address, size});
    }
    if (expected.size() <= kUnit) {
        if (!findings.wrong) narrowToWord(address, expected, findings);
        return;
    }
    const size_t half = std::max(expected.size() / 2 / kUnit * kUnit, kUnit);
    narrow(address, expected.first(half), findings);
    narrow(address + static_cast<uint32_t>(half), expected.subspan(half), findings);
}

void N32::narrowToWord(uint32_t address, std::span<const uint8_t> expected, Findings& findings) {
    size_t at = 0;
    while (at + kWord < expected.size() &&
           holds(address + static_cast<uint32_t>(at), expected.subspan(at, kWord))) {
        at += kWord;
    }
    findings.wrong =
        Findings::Cell{address + static_cast<uint32_t>(at), std::nullopt, expected[at]};
}

// What the flash holds after a download that was not acknowledged: nothing of it, or verification
// decides.
void N32::write(uint32_t address, std::span<const uint8_t> block) {
    Bytes padded(block.begin(), block.end());
    padded.resize((padded.size() + kUnit - 1) / kUnit * kUnit, 0xFF);
    Request request{.command = kDownload,
                    .parameter = address,
                    .payload = Bytes(kKeySize),
                    .busy = mPart->block.most};
    request.payload.insert(request.payload.end(), padded.begin(), padded.end());
    appendLittle(request.payload, crcOf(padded), 4);
    const Nanos start = mWire.now();
    repeat("write", request, nullptr, [&] { return !holds(address, Bytes(padded.size(), 0xFF)); });
    mWire.statistics.writing += mWire.now() - start;
    mWire.statistics.bytesWritten += block.size();
    mWire.meter.advance(block.size(), mWire.now());
}

void N32::eraseRun(uint32_t first, uint32_t count) {
    const Request request{.command = kFlashErase,
                          .parameter = first | count << 16,
                          .payload = Bytes(kKeySize),
                          .busy = mPart->page(first).erase.most * static_cast<int64_t>(count)};
    repeat("erase", request);
    mWire.statistics.pagesErased += count;
}

void N32::erase(const std::vector<uint32_t>& pages) {
    for (size_t at = 0; at < pages.size();) {
        uint32_t count = 1;
        while (at + count < pages.size() && pages[at + count] == pages[at] + count) ++count;
        eraseRun(pages[at], count);
        at += count;
    }
}

void N32::eraseEverything() { eraseRun(0, mPart->pageCount()); }

Nanos N32::timeToWrite(size_t bytes) const {
    const size_t blocks = (bytes + mPart->blockSize - 1) / mPart->blockSize;
    const size_t frame = kRequestFrame + kKeySize + 4 + kAnswerFrame;
    return kLine.timeOf(bytes + blocks * frame) +
           mPart->block.typical * static_cast<int64_t>(blocks);
}

Nanos N32::timeToCheck(size_t bytes) const {
    const size_t pages = (bytes + mPart->pageMap[0].size - 1) / mPart->pageMap[0].size;
    const size_t frame = kRequestFrame + kKeySize + 8 + kAnswerFrame;
    return (kLine.timeOf(frame) + kTurnaround) * static_cast<int64_t>(pages);
}

}  // namespace quil::programmer
