#include "programmer/parts.h"

#include <algorithm>

namespace quil::programmer {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr Region kNoRam{0, 0};

// The GD32 sheets give no longest time for an erase or a word. Their longest are the GD32F130's
// (word 400 us, mass 9.6 s) and the vendor's note on pages (300 ms).
constexpr Times kGdPage{milliseconds(20), milliseconds(300)};
constexpr Times kGdMass{milliseconds(1500), milliseconds(9600)};
constexpr Times kGdOptions{milliseconds(60), seconds(1)};

constexpr std::array<Part, 5> kParts = {{
    {
        .name = "gd32f303",
        .protocol = Protocol::kAn3155,
        .productId = 0x0414,
        .gdPids = {0x46455633, 0},
        .pageMap = {{{2048, 256, kGdPage}, {}, {}}},
        .ram = {{{0x20000000, 0x10000}, kNoRam}},
        .programUnit = 4,
        .blockSize = 256,
        .block = {microseconds(6720), microseconds(25600)},
        .massErase = kGdMass,
        .options = kGdOptions,
        .source = "GD32F303VE: user manual; DS5319 and GD32F130 data sheet",
    },
    {
        .name = "gd32f470",
        .protocol = Protocol::kAn3155,
        .productId = 0x0419,
        .gdPids = {0x4E455A30, 0x4E455630},
        .pageMap = {{{16384, 4, {milliseconds(60), milliseconds(500)}},
                     {65536, 1, {milliseconds(240), milliseconds(1100)}},
                     {131072, 3, {milliseconds(480), seconds(8)}}}},
        .ram = {{{0x20000000, 0x40000}, {0x10000000, 0x10000}}},
        .programUnit = 4,
        .blockSize = 256,
        .block = {microseconds(1024), microseconds(6400)},
        .massErase = kGdMass,
        .options = kGdOptions,
        .source = "GD32F470ZE: user manual; DS8626, flash memory characteristics",
    },
    {
        .name = "gd32e503",
        .protocol = Protocol::kAn3155,
        .productId = 0x0444,
        .gdPids = {0x45353033, 0},
        .pageMap = {{{8192, 64, kGdPage}, {}, {}}},
        .ram = {{{0x20000000, 0x20000}, kNoRam}},
        .programUnit = 8,
        .blockSize = 256,
        .block = {microseconds(1280), microseconds(12800)},
        .massErase = kGdMass,
        .options = kGdOptions,
        .source = "GD32E503VE: user manual; GD32F130 data sheet",
    },
    {
        .name = "stm32h750",
        .protocol = Protocol::kAn3155,
        .productId = 0x0450,
        .gdPids = {0, 0},
        .pageMap = {{{131072, 1, {seconds(1), seconds(4)}}, {}, {}}},
        .ram = {{{0x20000000, 0x20000}, {0x24000000, 0x80000}}},
        .programUnit = 32,
        .blockSize = 256,
        .block = {microseconds(800), microseconds(2320)},
        .massErase = {seconds(1), seconds(8)},
        .options = {milliseconds(300), seconds(2)},
        .source = "STM32H750VB: RM0433; DS12110, flash memory characteristics",
    },
    {
        .name = "n32g45x",
        .protocol = Protocol::kN32,
        .productId = 0,
        .gdPids = {0, 0},
        .pageMap = {{{2048, 256, {milliseconds(20), milliseconds(100)}}, {}, {}}},
        .ram = {{{0x20000000, 0x24000}, kNoRam}},
        .programUnit = 16,
        .blockSize = 128,
        .block = {milliseconds(64), milliseconds(200)},
        .massErase = {milliseconds(200), seconds(2)},
        .options = {},
        .source = "N32G455: data sheet; a download is answered 60 ms after it",
    },
}};

}  // namespace

std::span<const Part> parts() { return kParts; }

const Part* partNamed(std::string_view text) {
    const auto named = [text](const Part& part) { return text.find(part.name) != text.npos; };
    const auto* found = std::find_if(kParts.begin(), kParts.end(), named);
    return found == kParts.end() ? nullptr : found;
}

std::string namesOfParts() {
    std::string names;
    for (const Part& part : kParts) names += (names.empty() ? "" : ", ") + std::string(part.name);
    return names;
}

uint32_t Part::pageCount() const {
    uint32_t count = 0;
    for (const Pages& pages : pageMap) count += pages.count;
    return count;
}

uint32_t Part::flashSize() const {
    uint32_t size = 0;
    for (const Pages& pages : pageMap) size += pages.size * pages.count;
    return size;
}

Page Part::page(uint32_t number) const {
    uint32_t first = 0, base = kFlashBase;
    for (const Pages& pages : pageMap) {
        if (number < first + pages.count) {
            return {number, base + (number - first) * pages.size, pages.size, pages.erase};
        }
        first += pages.count;
        base += pages.size * pages.count;
    }
    throw std::out_of_range("no such page");
}

Page Part::pageAt(uint32_t address) const {
    uint32_t first = 0, offset = address - kFlashBase;
    for (const Pages& pages : pageMap) {
        const uint32_t size = pages.size * pages.count;
        if (offset < size) return page(first + offset / pages.size);
        first += pages.count;
        offset -= size;
    }
    throw std::out_of_range("no page there");
}

bool Part::inRam(uint32_t address) const {
    return std::any_of(ram.begin(), ram.end(), [address](const Region& region) {
        return region.size > 0 && address >= region.base && address - region.base <= region.size;
    });
}

}  // namespace quil::programmer
