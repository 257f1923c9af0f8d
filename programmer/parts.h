// The parts that can be programmed, from their published documents: how they name themselves, their
// memory, and how long their flash takes.
#pragma once

#include <array>
#include <span>
#include <string>
#include <string_view>

#include "programmer/transport.h"

namespace quil::programmer {

inline constexpr uint32_t kFlashBase = 0x08000000;

enum class Protocol { kAn3155, kN32 };

struct Region {
    uint32_t base, size;  // bytes
};
struct Times {
    Nanos typical, most;
};
struct Page {
    uint32_t number, address, size;
    Times erase;
};

struct Part {
    struct Pages {
        uint32_t size, count;
        Times erase;  // of one
    };

    const char* name;
    Protocol protocol;
    uint16_t productId;              // Get ID; 0: the N32's protocol has none
    std::array<uint32_t, 2> gdPids;  // answers to the GD32's own command 0x06; 0: none
    std::array<Pages, 3> pageMap;    // in the order of addresses, from kFlashBase
    std::array<Region, 2> ram;
    uint32_t programUnit;    // bytes that are programmed at once, once between two erases
    uint32_t blockSize;      // bytes of the largest write
    Times block, massErase;  // of such a write, of the whole flash
    Times options;           // protection changed; most parts reset afterwards
    const char* source;      // of the map and the times

    uint32_t pageCount() const;
    uint32_t flashSize() const;
    Page page(uint32_t number) const;  // of the page map
    Page pageAt(uint32_t address) const;
    bool inRam(uint32_t address) const;  // or at its end, as a stack pointer
    bool inFlash(uint32_t address) const { return address - kFlashBase < flashSize(); }
};

std::span<const Part> parts();
// The part whose name occurs in `text`; null if there is none.
const Part* partNamed(std::string_view text);
std::string namesOfParts();  // "gd32f303, gd32f470, .."

}  // namespace quil::programmer
