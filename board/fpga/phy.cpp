#include "board/fpga/phy.h"

#include <errno.h>

#include <cstdio>
#include <sstream>

namespace quil::board {
namespace {

constexpr uint32_t kHighestRegister = 0x1f, kHighestValue = 0xFFFF;
constexpr char kLinkUp[] = "0x907\n", kLinkDown[] = "0x103\n";

// A number in hexadecimal after "0x".
std::optional<uint32_t> numberOf(const std::string& word, uint32_t highest) {
    if (word.size() < 3 || word.size() > 6 || word.compare(0, 2, "0x") != 0) return std::nullopt;
    if (word.find_first_not_of("0123456789abcdefABCDEF", 2) != std::string::npos) {
        return std::nullopt;
    }
    const auto value = static_cast<uint32_t>(std::stoul(word.substr(2), nullptr, 16));
    return value <= highest ? std::optional(value) : std::nullopt;
}

}  // namespace

Phy::Phy(BoardServices& board, GpioLine& resetLine, Sysfs& sysfs)
    : board_(board), resetLine_(resetLine), sysfs_(sysfs) {
    resetLine_.onEdge([this](int level) { resetLineChanged(level); });
}

Phy::~Phy() = default;

void Phy::resetLineChanged(int level) {
    setUpAt_.reset();
    registers_.clear();
    page_ = 0;
    if (level != 0) {
        ++resets_;
        startsAt_ = now() + kStartUp;
    } else if (onReset_) {
        onReset_();
    }
}

void Phy::driverLoaded() {
    driver_ = true;
    sysfs_.add(kPhyRegisters, {[this] {
                                   char text[32];
                                   snprintf(text, sizeof text, "0x%x = 0x%x\n", lastRegister_,
                                            lastValue_);
                                   return std::string(text);
                               },
                               [this](std::string_view text) { return store(text); }});
    sysfs_.add(kPhyStatus, {[this] { return statusText(); }, nullptr});
}

void Phy::driverUnloaded() {
    driver_ = false;
    sysfs_.remove(kPhyRegisters);
    sysfs_.remove(kPhyStatus);
}

int Phy::store(std::string_view text) {
    std::istringstream words{std::string(text)};
    std::string verb, first, second, more;
    words >> verb >> first >> second >> more;
    const auto number = numberOf(first, kHighestRegister);
    const auto value = numberOf(second, kHighestValue);
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
    lastRegister_ = static_cast<uint16_t>(*number);
    lastValue_ = registerAt(page_, static_cast<uint8_t>(*number));
    return 0;
}

int Phy::writeRegister(uint32_t number, uint32_t value) {
    const auto word = static_cast<uint16_t>(value);
    if (number == kPageRegister) {
        page_ = word;
        return 0;
    }
    registers_[uint32_t{page_} << 8 | number] = word;
    if (page_ == kSetUpPage && number == kSetUpRegister) {
        setUpAt_ = word == kSetUp ? std::optional(now()) : std::nullopt;
    }
    return 0;
}

bool Phy::mayBeAccessed() const { return resetLine_.level() != 0 && now() >= startsAt_; }

std::string Phy::statusText() const {
    if (!fixedText_.empty()) return fixedText_;
    return isLinkUp() ? kLinkUp : kLinkDown;
}

bool Phy::isLinkUp() const {
    Guard guard(boardLock());
    const bool dead = deadResets_ < 0 || (deadResets_ > 0 && resets_ <= deadResets_);
    return cable_ && driver_ && !dead && setUpAt_ && now() - *setUpAt_ >= kLinkTraining;
}

uint16_t Phy::registerAt(uint16_t page, uint8_t number) const {
    Guard guard(boardLock());
    if (number == kPageRegister) return page_;
    const auto found = registers_.find(uint32_t{page} << 8 | number);
    return found == registers_.end() ? uint16_t{0} : found->second;
}

int Phy::resets() const {
    Guard guard(boardLock());
    return resets_;
}

void Phy::setCable(bool plugged) {
    Guard guard(boardLock());
    cable_ = plugged;
}

void Phy::setDeadResets(int count) {
    Guard guard(boardLock());
    resets_ = 0;
    deadResets_ = count;
}

void Phy::setStatusText(std::string text) {
    Guard guard(boardLock());
    fixedText_ = std::move(text);
}

}  // namespace quil::board
