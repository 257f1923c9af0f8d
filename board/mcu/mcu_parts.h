// The microcontrollers that a board may carry: memory maps, boot loaders, times.
//
// Page maps: GD32F30x user manual (2 KiB pages in the first 512 KiB, 4 KiB above), GD32F4xx (page
// erase of 4 KiB), GD32E50x (8 KiB), STM32H750 (RM0433: one sector of 128 KiB), N32G45x (2 KiB).
// Times are close to the typical ones of the data sheets. Hosts wait two seconds for the erase of
// up to 126 pages, which limits the time of one page. Boot-loader commands and answers: AN3155.
#pragma once

#include <stdint.h>

#include <array>
#include <chrono>
#include <span>
#include <string_view>

namespace quil::board {

enum class McuKind { kGd32F303, kGd32F470, kGd32E503, kStm32H750, kN32G45x };

struct FlashRegion {
    uint32_t pageSize;  // bytes
    uint32_t pages;
};

struct McuPart {
    McuKind kind;
    const char* name;                    // as in product files
    std::array<FlashRegion, 2> regions;  // in the order of addresses, from 0x08000000
    uint32_t programUnit;                // bytes; each unit is programmed once between two erases
    uint32_t writeMultiple;              // bytes; the boot loader writes only multiples of it
    std::chrono::nanoseconds programTime, eraseTime,
        massEraseTime;                  // of a unit, a page, the whole flash
    uint32_t ramSize;                   // from 0x20000000 upwards
    std::span<const uint8_t> commands;  // of its AN3155 boot loader; empty: it has the N32's
    uint8_t loaderVersion;
    uint16_t productId;       // Get ID
    uint32_t gdPid;           // answer to the GD32 command 0x06; 0: no such command
    bool ignoresAbsentPages;  // an erase skips absent pages; false: it refuses them

    uint32_t flashSize() const {
        return regions[0].pageSize * regions[0].pages + regions[1].pageSize * regions[1].pages;
    }
    uint32_t pageCount() const { return regions[0].pages + regions[1].pages; }
};

inline constexpr uint32_t kMcuFlashBase = 0x08000000, kMcuRamBase = 0x20000000;

std::span<const McuPart> mcuParts();
const McuPart& partOf(McuKind);
// The part whose name ("gd32f303") occurs in `text`; null if there is none.
const McuPart* partNamedIn(std::string_view text);

}  // namespace quil::board
