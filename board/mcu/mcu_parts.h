// The microcontrollers that a board may carry: memory maps, identity, boot loaders, times. Where
// the numbers come from, and which are chosen for want of a published one: docs/models.md.
#pragma once

#include <stdint.h>

#include <array>
#include <chrono>
#include <span>
#include <string_view>

namespace quil::board {

enum class McuKind { kGd32F303, kGd32F470, kGd32E503, kStm32H750, kN32G45x };

struct FlashTime {
    std::chrono::nanoseconds typical, most;
};

struct FlashRegion {
    uint32_t pageSize;  // bytes
    uint32_t pages;
    FlashTime erase;  // of one page
};

struct MemoryRange {
    uint32_t start, size;
    bool holds(uint32_t address) const { return address - start < size; }
};

// How the option bytes are laid out: STM32F1 (RDP, USER, DATA, WRP0 to 3, each with its
// complement) or STM32F4 (USER, RDP, nWRP). kNone: they are registers, out of the loader's reach.
enum class OptionLayout { kNone, kStm32F1, kStm32F4 };

// What tells one part from another. Addresses are 0 where a part has none.
struct McuIdentity {
    const char* orderCode;
    uint16_t productId;   // Get ID
    uint32_t gdPid;       // answer to the GD32 command 0x06; 0: no such command
    MemoryRange system;   // system memory, with what follows
    uint32_t sizeAt;      // flash size in KiB (2 bytes)
    uint32_t uniqueIdAt;  // 12 bytes
    uint32_t loaderIdAt;  // 1 byte
    uint8_t loaderId;     // of the boot loader in ROM
    uint8_t protocol;     // Get, Get Version: 0x31 is 3.1
};

struct McuPart {
    McuKind kind;
    const char* name;                    // as in product files
    std::array<FlashRegion, 3> regions;  // in the order of addresses, from 0x08000000
    uint32_t programUnit;                // bytes; each unit is programmed once between two erases
    uint32_t writeMultiple;              // bytes; the boot loader writes only multiples of it
    FlashTime program, massErase, writeOptions;  // of a unit, the whole flash, the option bytes
    uint32_t ramSize;                            // from 0x20000000 upwards
    uint32_t loaderRam;                 // bytes from there on that the boot loader keeps to itself
    std::span<const uint8_t> commands;  // that Get lists; empty: it has the N32's boot loader
    McuIdentity identity;
    MemoryRange optionBytes;
    OptionLayout optionLayout;
    uint32_t protectedPages;  // in one sector of write protection
    bool erasesBanks;         // special erases 0xFFFE and 0xFFFD
    bool resetsAfterOptions;  // after a command that changes option bytes

    char loaderParity() const { return commands.empty() ? 'N' : 'E'; }  // of its boot loader's line
    uint32_t flashSize() const;
    uint32_t pageCount() const;
};

inline constexpr uint32_t kMcuFlashBase = 0x08000000, kMcuRamBase = 0x20000000;

std::span<const McuPart> mcuParts();
const McuPart& partOf(McuKind);
// The part whose name ("gd32f303") occurs in `text`; null if there is none.
const McuPart* partNamedIn(std::string_view text);

}  // namespace quil::board
