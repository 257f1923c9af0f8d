// The microcontrollers that a board may carry: memory maps, boot loaders, times.
//
// Page maps: GD32F30x user manual (2 KiB pages in the first 512 KiB, 4 KiB above), GD32F4xx (page
// erase of 4 KiB), GD32E50x (8 KiB), STM32H750 (RM0433: one sector of 128 KiB), N32G45x (2 KiB).
// Times are of the order of the data sheets' typical ones; hosts in the field give the erase of up
// to 126 pages two seconds, which sets the upper end. Boot-loader commands and answers: AN3155.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
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
    const char* name;                    // as product files have it
    std::array<FlashRegion, 2> regions;  // from 0x08000000 upwards
    uint32_t programUnit;                // bytes that are programmed at once, and never again
    uint32_t writeMultiple;              // the boot loader writes such multiples of bytes
    std::chrono::nanoseconds programTime, eraseTime, massEraseTime;  // a unit, a page, everything
    uint32_t ramSize;                                                // from 0x20000000 upwards
    std::span<const uint8_t> commands;  // of its AN3155 boot loader; empty: it speaks the N32's
    uint8_t loaderVersion;
    uint16_t productId;       // Get ID
    uint32_t gdPid;           // the GD32 command 0x06; 0: not known to it
    bool ignoresAbsentPages;  // an erase of pages that it has not: passed over, or refused

    uint32_t flashSize() const {
        return regions[0].pageSize * regions[0].pages + regions[1].pageSize * regions[1].pages;
    }
    uint32_t pageCount() const { return regions[0].pages + regions[1].pages; }
};

inline constexpr uint32_t kMcuFlashBase = 0x08000000, kMcuRamBase = 0x20000000;

std::span<const McuPart> mcuParts();
const McuPart& partOf(McuKind);
// The part whose name stands in `text` ("gd32f303"); null when none does.
const McuPart* partNamedIn(std::string_view text);

}  // namespace quil::board
