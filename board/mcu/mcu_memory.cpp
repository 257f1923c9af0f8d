#include "board/mcu/mcu_memory.h"

#include <algorithm>

namespace quil::board {
namespace {

constexpr uint8_t kUnprotectedF1 = 0xA5, kUnprotectedF4 = 0xAA, kProtected = 0x00;
constexpr uint32_t kSectorsF1 = 32, kSectorsF4 = 12;  // bits of write protection

uint8_t byteOf(uint32_t value, uint32_t number) {
    return static_cast<uint8_t>(value >> 8 * number);
}

}  // namespace

McuMemory::Area McuMemory::areaOf(uint32_t address) const {
    const MemoryRange flash = {kMcuFlashBase, mPart.flashSize()};
    const MemoryRange ram = {kMcuRamBase + mPart.loaderRam, mPart.ramSize - mPart.loaderRam};
    if (flash.holds(address)) return Area::kFlash;
    if (ram.holds(address)) return Area::kRam;
    if (mPart.identity.system.holds(address)) return Area::kSystem;
    return mPart.optionBytes.holds(address) ? Area::kOptions : Area::kNone;
}

uint8_t McuMemory::read(uint32_t address) const {
    switch (areaOf(address)) {
        case Area::kFlash:
            return mFlash.cells()[address - kMcuFlashBase];
        case Area::kRam:
            return address - kMcuRamBase < mRam.size() ? mRam[address - kMcuRamBase] : 0;
        case Area::kSystem:
            return system(address);
        case Area::kOptions:
            return optionBytes()[address - mPart.optionBytes.start];
        case Area::kNone:
            return 0;
    }
    return 0;
}

uint8_t McuMemory::system(uint32_t address) const {
    const McuIdentity& identity = mPart.identity;
    if (const uint32_t at = address - identity.sizeAt; at < 2) {
        return byteOf(mPart.flashSize() / 1024, at);
    }
    if (const uint32_t at = address - identity.uniqueIdAt; at < 12) {
        return static_cast<uint8_t>(0x51 + at);
    }
    return identity.loaderIdAt != 0 && address == identity.loaderIdAt ? identity.loaderId : 0;
}

void McuMemory::writeRam(uint32_t address, std::span<const uint8_t> bytes) {
    mRam.resize(mPart.ramSize);
    const size_t at = address - kMcuRamBase, room = mRam.size() - at;
    std::copy_n(bytes.begin(), std::min(bytes.size(), room),
                mRam.begin() + static_cast<ptrdiff_t>(at));
}

std::set<uint32_t> McuMemory::pagesOf(std::span<const uint8_t> sectors) const {
    std::set<uint32_t> pages;
    for (const uint32_t sector : sectors) {
        const uint32_t first = sector * mPart.protectedPages;
        // The last bit of an STM32F1 stands for all that is left.
        const bool rest = mPart.optionLayout == OptionLayout::kStm32F1 && sector == kSectorsF1 - 1;
        const uint32_t end = rest ? mPart.pageCount() : first + mPart.protectedPages;
        for (uint32_t page = first; page < std::min(end, mPart.pageCount()); ++page) {
            pages.insert(page);
        }
    }
    return pages;
}

// One bit for each sector, 1: not protected.
uint32_t McuMemory::unprotectedSectors() const {
    uint32_t bits = 0xFFFFFFFF;
    for (const uint32_t page : mFlash.writeProtectedPages()) {
        bits &= ~(1U << std::min(page / mPart.protectedPages, 31U));
    }
    return bits;
}

std::vector<uint8_t> McuMemory::optionBytes() const {
    std::vector<uint8_t> bytes(mPart.optionBytes.size, 0xFF);
    const uint32_t sectors = unprotectedSectors();
    const bool isProtected = mFlash.readoutProtected();
    if (mPart.optionLayout == OptionLayout::kStm32F4) {
        bytes[1] = isProtected ? kProtected : kUnprotectedF4;
        bytes[8] = byteOf(sectors, 0);
        bytes[9] = byteOf(sectors, 1);
        return bytes;
    }
    bytes[0] = isProtected ? kProtected : kUnprotectedF1;
    for (uint32_t i = 0; i < 4; ++i) bytes[8 + 2 * i] = byteOf(sectors, i);
    for (size_t i = 0; i < bytes.size(); i += 2) bytes[i + 1] = static_cast<uint8_t>(~bytes[i]);
    return bytes;
}

Nanos McuMemory::startWriteOptions(uint32_t address, std::span<const uint8_t> written) {
    std::vector<uint8_t> bytes = optionBytes();
    const size_t at = address - mPart.optionBytes.start;
    std::copy_n(written.begin(), std::min(written.size(), bytes.size() - at),
                bytes.begin() + static_cast<ptrdiff_t>(at));
    const bool isF4 = mPart.optionLayout == OptionLayout::kStm32F4;
    const uint32_t stride = isF4 ? 1 : 2, count = isF4 ? kSectorsF4 : kSectorsF1;
    std::vector<uint8_t> sectors;
    for (uint32_t i = 0; i < count; ++i) {
        const bool unprotected = (bytes[8 + i / 8 * stride] >> i % 8 & 1) != 0;
        if (!unprotected) sectors.push_back(static_cast<uint8_t>(i));
    }
    const bool isOpen = isF4 ? bytes[1] == kUnprotectedF4 : bytes[0] == kUnprotectedF1;
    return mFlash.startWriteOptions(!isOpen, pagesOf(sectors));
}

}  // namespace quil::board
