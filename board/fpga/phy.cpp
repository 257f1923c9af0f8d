#include "board/fpga/phy.h"

#include <errno.h>
#include <stdio.h>

#include <sstream>

namespace quil::board {
namespace {

constexpr uint32_t kHighestRegister = 0x1f, kHighestValue = 0xFFFF;
constexpr char kLinkUp[] = "0x907\n", kLinkDown[] = "0x103\n";

// A number in hexadecimal after "0x".
std::optional<uint32_t> hexNumberOf(const std::string& word, uint32_t highest) {
    if (word.size() < 3 || word.size() > 6 || word.compare(0, 2, "0x") != 0) return std::nullopt;
    if (word.find_first_not_of("0123456789abcdefABCDEF", 2) != std::string::npos) {
        return std::nullopt;
    }
    const auto value = static_cast<uint32_t>(std::stoul(word.substr(2), nullptr, 16));
    return value <= highest ? std::optional(value) : std::nullopt;
}

}  // namespace

Phy::Phy(BoardServices& board, GpioLine& resetLine, Sysfs& sysfs)
    : mBoard(board), mResetLine(resetLine), mSysfs(sysfs) {
    mResetLine.onEdge([this](int level) { resetLineChanged(level); });
}

Phy::~Phy() = default;

void Phy::resetLineChanged(int level) {
    mSetUpAt.reset();
    mRegisters.clear();
    mPage = 0;
    if (level != 0) {
        ++mResets;
        mStartsAt = now() + kStartUp;
    } else if (mOnReset) {
        mOnReset();
    }
}

void Phy::driverLoaded() {
    mDriver = true;
    mSysfs.add(kPhyRegisters, {[this] {
                                   char text[32];
                                   snprintf(text, sizeof(text), "0x%x = 0x%x\n", mLastRegister,
                                            mLastValue);
                                   return std::string(text);
                               },
                               [this](std::string_view text) { return store(text); }});
    mSysfs.add(kPhyStatus, {[this] { return statusText(); }, nullptr});
}

void Phy::driverUnloaded() {
    mDriver = false;
    mSysfs.remove(kPhyRegisters);
    mSysfs.remove(kPhyStatus);
}

int Phy::store(std::string_view text) {
    std::istringstream words{std::string(text)};
    std::string verb, first, second, more;
    words >> verb >> first >> second >> more;
    const auto number = hexNumberOf(first, kHighestRegister);
    const auto value = hexNumberOf(second, kHighestValue);
    const bool isWrite = verb == "w" && number && value && more.empty();
    const bool isRead = verb == "r" && number && second.empty();
    if (!isWrite && !isRead) {
        violation("the driver does not understand \"" + std::string(text) + "\"");
        return EINVAL;
    }
    if (!mayBeAccessed()) {
        violation("a register is accessed before the PHY has started");
        return EIO;
    }
    if (isWrite) return writeRegister(*number, *value);
    mLastRegister = static_cast<uint16_t>(*number);
    mLastValue = registerAt(mPage, static_cast<uint8_t>(*number));
    return 0;
}

int Phy::writeRegister(uint32_t number, uint32_t value) {
    const auto word = static_cast<uint16_t>(value);
    if (number == kPageRegister) {
        mPage = word;
        return 0;
    }
    mRegisters[uint32_t{mPage} << 8 | number] = word;
    if (mPage == kSetUpPage && number == kSetUpRegister) {
        mSetUpAt = word == kSetUp ? std::optional(now()) : std::nullopt;
    }
    return 0;
}

bool Phy::mayBeAccessed() const { return mResetLine.level() != 0 && now() >= mStartsAt; }

std::string Phy::statusText() const {
    if (!mFixedText.empty()) return mFixedText;
    return isLinkUp() ? kLinkUp : kLinkDown;
}

bool Phy::isLinkUp() const {
    Guard guard(boardLock());
    const bool dead = mDeadResets < 0 || (mDeadResets > 0 && mResets <= mDeadResets);
    return mCable && mDriver && !dead && mSetUpAt && now() - *mSetUpAt >= kLinkTraining;
}

uint16_t Phy::registerAt(uint16_t page, uint8_t number) const {
    Guard guard(boardLock());
    if (number == kPageRegister) return mPage;
    const auto found = mRegisters.find(uint32_t{page} << 8 | number);
    return found == mRegisters.end() ? uint16_t{0} : found->second;
}

int Phy::resets() const {
    Guard guard(boardLock());
    return mResets;
}

void Phy::setCable(bool plugged) {
    Guard guard(boardLock());
    mCable = plugged;
}

void Phy::setDeadResets(int count) {
    Guard guard(boardLock());
    mResets = 0;
    mDeadResets = count;
}

void Phy::setStatusText(std::string text) {
    Guard guard(boardLock());
    mFixedText = std::move(text);
}

}  // namespace quil::board
