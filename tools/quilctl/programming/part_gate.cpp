#include "tools/quilctl/programming/part_gate.h"

#include <algorithm>
#include <array>

namespace quil::tools {
namespace {

// The erases of both protocols, and the N32's question for its name.
constexpr std::array<uint8_t, 2> kAskErase = {0x43, 0xBC}, kAskExtendedErase = {0x44, 0xBB};
constexpr std::array<uint8_t, 3> kAskN32Erase = {0xAA, 0x55, 0x30},
                                 kAskN32Info = {0xAA, 0x55, 0x10};

template <size_t size>
bool beginsWith(std::span<const uint8_t> bytes, const std::array<uint8_t, size>& with) {
    return bytes.size() >= size && std::equal(with.begin(), with.end(), bytes.begin());
}

// The printable bytes at the front of the payload, behind what may have come before the answer.
std::string n32NameIn(const Bytes& answer) {
    constexpr ptrdiff_t kPayloadAt = 6;
    const auto start =
        std::search(answer.begin(), answer.end(), kAskN32Info.begin(), kAskN32Info.end());
    if (answer.end() - start <= kPayloadAt) return "";
    const auto end = std::find_if(start + kPayloadAt, answer.end(),
                                  [](uint8_t byte) { return byte < ' ' || byte > '~'; });
    return {start + kPayloadAt, end};
}

}  // namespace

void PartGate::see(const board::Event& event) {
    if (event.source != mPort) return;
    if (event.kind == board::EventKind::kUartTx) {
        mAsked = event.bytes;
        mAnswer.clear();
    }
    if (event.kind != board::EventKind::kUartRx) return;
    mAnswer.insert(mAnswer.end(), event.bytes.begin(), event.bytes.end());
    answered();
}

// A GD32's own number says more than the product's, which other makers' parts have as well.
void PartGate::answered() {
    if (beginsWith(mAsked, kAskN32Info)) mName = n32NameIn(mAnswer);
    if (mAsked.size() != 2 || (mAsked[0] ^ mAsked[1]) != 0xFF) return;
    const auto id = productIdIn(mAsked[0], mAnswer);
    if (id && (mAsked[0] == kAskForGdPid || !mId)) mId = id;
}

bool PartGate::isExpected() const {
    if (mExpected.protocol == programmer::Protocol::kN32) {
        return programmer::partNamed(mName) == &mExpected;
    }
    const bool isGd = mExpected.gdPids[0] != 0;
    const int digits = isGd ? 8 : 4;
    return mId && mId->part == &mExpected && mId->digits == digits;
}

bool PartGate::passes(std::span<const uint8_t> request) {
    const bool isErase = beginsWith(request, kAskErase) || beginsWith(request, kAskExtendedErase) ||
                         beginsWith(request, kAskN32Erase);
    if (!isErase || isExpected()) return true;
    std::string seen = "a part that has not said what it is";
    if (mId) seen = mId->text();
    if (!mName.empty()) seen = "'" + mName + "'";
    mRefusal = "the MCU behind " + mPort + " is " + seen + ", not a " + mExpected.name +
               ": nothing was erased";
    return false;
}

}  // namespace quil::tools
