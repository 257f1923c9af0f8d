// How an AN3155 session comes into step with the boot loader, and back into it.
#include <algorithm>
#include <array>

#include "programmer/an3155.h"

namespace quil::programmer {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr uint8_t kSync = 0x7F;
constexpr Nanos kResetHold = milliseconds(10), kStart = milliseconds(50);
constexpr Nanos kPoke = milliseconds(60), kPatience = seconds(5), kQuiet = milliseconds(5);
// More bad answers than this, and more than one of kBadShare, and the rate is too high.
constexpr size_t kMostBad = 16, kBadShare = 32;
constexpr std::array<int, 8> kRates = {921600, 460800, 230400, 115200, 57600, 38400, 19200, 9600};
constexpr std::array<char, 3> kParities = {'E', 'N', 'O'};

}  // namespace

bool An3155::startLoader() {
    mIsWired = mWire.lines(true, false);
    if (!mIsWired) return false;
    mWire.pause(kResetHold);
    mWire.lines(true, true);
    mWire.pause(kStart);
    return true;
}

bool An3155::leave() {
    if (!mWire.lines(false, false)) return false;
    mWire.pause(kResetHold);
    mWire.lines(false, true);
    return true;
}

// The configured rate first, and lower ones where there is no answer: the part measures the rate
// after each reset. Without one the first rate is the only one.
void An3155::connect() {
    while (!tryRate()) {
        const auto* lower = lowerRate();
        if (lower == nullptr || !mIsWired) noLoaderAnswers(mWire, mOptions, mIsWired);
        stepDown(*lower, "no synchronisation");
    }
    mBad = mAsked = 0;
}

const int* An3155::lowerRate() const {
    const auto* lower =
        std::find_if(kRates.begin(), kRates.end(), [this](int rate) { return rate < mMode.baud; });
    return lower == kRates.end() ? nullptr : lower;
}

void An3155::stepDown(int rate, const std::string& why) {
    mWire.statistics.count(Trouble::kRateStep);
    mWire.say(why + " at " + std::to_string(mMode.baud) + " bit/s: on with " +
              std::to_string(rate));
    mMode.baud = rate;
}

// Two resets at most; more only while the part synchronises and is deaf, which is the parity.
bool An3155::tryRate() {
    constexpr int kResets = 2;
    const char configured = mMode.parity;
    for (int resets = 0; resets < kResets; ++resets) {
        mWire.setMode(mMode);
        startLoader();
        if (synchronise()) {
            if (hears()) return true;
            if (tryParities()) return true;
        }
        mMode.parity = configured;
    }
    return false;
}

bool An3155::tryParities() {
    const char deaf = mMode.parity;
    for (const char parity : kParities) {
        if (parity == deaf) continue;
        mMode.parity = parity;
        mWire.setMode(mMode);
        startLoader();
        if (!synchronise() || !hears()) continue;
        mWire.statistics.count(Trouble::kWrongParity);
        mWire.say(std::string("the boot loader hears parity ") + parity + ", not " + deaf);
        return true;
    }
    return false;
}

// The first 0x7F is answered with ACK; in a part that is synchronised already it is half a command,
// which a second byte completes to a wrong one. After a reset nothing can be pending, and the first
// byte may have been lost: then the second is another 0x7F. Otherwise it is a filler: two 0x7F and
// fillers would be a block of a write with a right checksum.
bool An3155::synchronise() {
    if (mWire.drain(kQuiet) > 0) mWire.statistics.count(Trouble::kJunk);
    mLast.clear();
    for (int sent = 0; sent < 2; ++sent) {
        const Answer answer = poke(sent == 0 || mIsWired ? kSync : filler());
        if (answer == Answer::kAck) return true;
        if (answer == Answer::kNone) continue;
        mWire.statistics.count(sent == 0 ? Trouble::kHalfCommand : Trouble::kAlreadySynchronised);
        return true;
    }
    if (mIsWired || !flush()) return false;
    mWire.statistics.count(Trouble::kHalfCommand);
    return true;
}

// Whether commands arrive: a part that measured a wrong rate or has another parity acknowledges the
// synchronisation, and nothing else.
bool An3155::hears() {
    constexpr int kAttempts = 4;
    Bytes data;
    for (int i = 0; i < kAttempts; ++i) {
        const Attempt attempt = reply(0x00, data);
        if (attempt.ok()) return true;
        const bool isInStep = attempt.answer == Answer::kNack ? settle() > 0 : realign(attempt);
        if (!isInStep) return false;
    }
    return false;
}

An3155::Answer An3155::poke(uint8_t byte) {
    constexpr int kMostJunk = 16;
    uint8_t answer = 0;
    if (mWire.exchange({&byte, 1}, {&answer, 1}, Nanos(0), kPoke) == 0) return Answer::kNone;
    for (int junk = 0; answer != kAck && answer != kNack; ++junk) {
        if (junk == 0) mWire.statistics.count(Trouble::kJunk);
        if (junk == kMostJunk || mWire.read({&answer, 1}, kPoke) == 0) return Answer::kNone;
    }
    return answer == kAck ? Answer::kAck : Answer::kNack;
}

// A byte that no phase accepts when it is repeated: even, so that a count and as many bytes of it
// have a wrong XOR; its own complement it is not; small, so that a list of so many pages is short;
// and it does not stand in what was sent last, where it could take the place of a lost byte.
uint8_t An3155::filler() const {
    for (int byte = 0x02; byte < 0x7F; byte += 2) {
        if (std::find(mLast.begin(), mLast.end(), byte) == mLast.end()) {
            return static_cast<uint8_t>(byte);
        }
    }
    return 0x02;
}

// A NACK to a single byte means that the part waits for a command again. Returns how many bytes
// that took; 0: there was no NACK.
int An3155::settle() {
    constexpr int kMost = 6;
    const uint8_t byte = filler();
    mWire.drain(kQuiet);
    for (int sent = 1; sent <= kMost; ++sent) {
        if (poke(byte) == Answer::kNack) return sent;
    }
    return 0;
}

// Completes whatever the part is still waiting for: an address, a block, a list of pages.
bool An3155::flush() {
    const uint8_t byte = filler();
    for (const size_t count : {3, 16, 256, 1100}) {
        const Bytes bytes(count, byte);
        uint8_t answer = 0;
        if (mWire.exchange(bytes, {&answer, 1}, Nanos(0), kPoke) == 0) continue;
        if (settle() > 0) return true;
    }
    return false;
}

// The part may still be at work.
bool An3155::listen() {
    uint8_t answer = 0;
    if (mWire.read({&answer, 1}, kPatience) == 0 || settle() == 0) return false;
    mWire.statistics.count(Trouble::kBusy);
    return true;
}

// False: only a reset helps. The leading 0x7F synchronises a part that has reset by itself; it is
// left out where it could complete what was sent before.
bool An3155::realign(const Attempt& failed) {
    if (mWire.drain(kQuiet) > 0) mWire.statistics.count(Trouble::kJunk);
    const bool isErase = failed.code == eraseCode() && failed.phase == Phase::kCommand;
    const bool isSafe = std::find(mLast.begin(), mLast.end(), kSync) == mLast.end();
    const uint8_t lead = isSafe && !isErase ? kSync : filler();
    Answer answer = poke(lead);
    if (answer == Answer::kNone) answer = poke(filler());
    if (answer == Answer::kAck) return realignAfterAck();
    if (answer == Answer::kNack) {
        if (!mWasDamaged) mWire.statistics.count(Trouble::kLostAnswer);
        return true;
    }
    const bool isAtWork = failed.busy > Nanos(0);
    if (isAtWork && listen()) return true;
    if (flush()) {
        mWire.statistics.count(Trouble::kHalfCommand);
        return true;
    }
    return !isAtWork && listen();
}

// The ACK came from a part that has just synchronised, or it is a late one, and 0x7F is now half a
// command, which one more byte completes.
bool An3155::realignAfterAck() {
    const int sent = settle();
    if (sent > 0) mWire.statistics.count(sent == 1 ? Trouble::kBusy : Trouble::kPartReset);
    return sent > 0;
}

void An3155::backInStep(const Attempt& failed) {
    if (realign(failed)) return;
    if (!mIsWired) noLoaderAnswers(mWire, mOptions, mIsWired);
    mWire.statistics.count(Trouble::kLineReset);
    connect();
}

// A line that is too bad for its rate costs more in repetitions than a lower rate does.
void An3155::badAnswer() {
    if (++mBad < kMostBad || mBad * kBadShare < mAsked) return;
    const auto* lower = lowerRate();
    if (lower == nullptr || !mIsWired) return;
    stepDown(*lower, std::to_string(mBad) + " bad answers of " + std::to_string(mAsked));
    connect();
}

}  // namespace quil::programmer
