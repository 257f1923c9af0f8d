#include "board/mcu/mcu_parts.h"

#include <algorithm>
#include <numeric>

namespace quil::board {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

// 43 and 44 exclude each other in this list.
constexpr uint8_t kCommands[] = {0x00, 0x01, 0x02, 0x11, 0x21, 0x31, 0x44, 0x63, 0x73, 0x82, 0x92};

constexpr FlashTime kStm32F1Page = {milliseconds(20), milliseconds(40)};    // DS5319
constexpr FlashTime kStm32F1Word = {microseconds(105), microseconds(140)};  // two half-words
// An erase of the block and its half-words, as above.
constexpr FlashTime kStm32F1Options = {milliseconds(21), milliseconds(41)};

constexpr std::array<McuPart, 5> kMcuParts = {{
    {
        .kind = McuKind::kGd32F303,
        .name = "gd32f303",
        .regions = {{{2048, 256, {milliseconds(20), milliseconds(300)}}, {}, {}}},
        .programUnit = 4,
        .writeMultiple = 4,
        .program = {microseconds(105), microseconds(400)},
        .massErase = {milliseconds(1500), milliseconds(9600)},
        .writeOptions = kStm32F1Options,
        .ramSize = 0x10000,
        .loaderRam = 0x200,
        .commands = kCommands,
        .identity = {.orderCode = "GD32F303VE",
                     .productId = 0x0414,
                     .gdPid = 0x46455633,
                     .system = {0x1FFFF000, 0x800},
                     .sizeAt = 0x1FFFF7E0,
                     .uniqueIdAt = 0x1FFFF7E8,
                     .loaderIdAt = 0,
                     .loaderId = 0,
                     .protocol = 0x30},
        .optionBytes = {0x1FFFF800, 16},
        .optionLayout = OptionLayout::kStm32F1,
        .protectedPages = 2,
        .erasesBanks = false,
        .resetsAfterOptions = true,
    },
    {
        .kind = McuKind::kGd32F470,
        .name = "gd32f470",
        .regions = {{{16384, 4, {milliseconds(60), milliseconds(500)}},
                     {65536, 1, {milliseconds(240), milliseconds(1100)}},
                     {131072, 3, {milliseconds(480), seconds(8)}}}},
        .programUnit = 4,
        .writeMultiple = 4,
        .program = {microseconds(16), microseconds(100)},
        .massErase = {milliseconds(1500), milliseconds(9600)},
        .writeOptions = {milliseconds(60), milliseconds(500)},
        .ramSize = 0x40000,
        .loaderRam = 0x3000,
        .commands = kCommands,
        .identity = {.orderCode = "GD32F470ZE",
                     .productId = 0x0419,
                     .gdPid = 0x4E455A30,
                     .system = {0x1FFF0000, 0x7A24},
                     .sizeAt = 0x1FFF7A22,
                     .uniqueIdAt = 0x1FFF7A10,
                     .loaderIdAt = 0x1FFF76DE,
                     .loaderId = 0x91,
                     .protocol = 0x31},
        .optionBytes = {0x1FFFC000, 16},
        .optionLayout = OptionLayout::kStm32F4,
        .protectedPages = 1,
        .erasesBanks = true,
        .resetsAfterOptions = true,
    },
    // Hosts do not know its identifiers, and mass-erase it.
    {
        .kind = McuKind::kGd32E503,
        .name = "gd32e503",
        .regions = {{{8192, 64, {milliseconds(20), milliseconds(300)}}, {}, {}}},
        .programUnit = 8,
        .writeMultiple = 4,
        .program = {microseconds(40), microseconds(400)},
        .massErase = {milliseconds(1500), milliseconds(9600)},
        .writeOptions = kStm32F1Options,
        .ramSize = 0x20000,
        .loaderRam = 0x200,
        .commands = kCommands,
        .identity = {.orderCode = "GD32E503VE",
                     .productId = 0x0444,
                     .gdPid = 0x45353033,
                     .system = {0x1FFFF000, 0x800},
                     .sizeAt = 0x1FFFF7E0,
                     .uniqueIdAt = 0x1FFFF7E8,
                     .loaderIdAt = 0,
                     .loaderId = 0,
                     .protocol = 0x30},
        .optionBytes = {0x1FFFF800, 16},
        .optionLayout = OptionLayout::kStm32F1,
        .protectedPages = 1,
        .erasesBanks = false,
        .resetsAfterOptions = true,
    },
    {
        .kind = McuKind::kStm32H750,
        .name = "stm32h750",
        .regions = {{{131072, 1, {seconds(1), seconds(2)}}, {}, {}}},  // DS12110, x64
        .programUnit = 32,
        .writeMultiple = 4,
        .program = {microseconds(100), microseconds(200)},
        .massErase = {seconds(1), seconds(2)},
        .writeOptions = {milliseconds(300), milliseconds(300)},
        .ramSize = 0x20000,
        .loaderRam = 0x4100,
        .commands = kCommands,
        .identity = {.orderCode = "STM32H750VB",
                     .productId = 0x0450,
                     .gdPid = 0,
                     .system = {0x1FF00000, 0x20000},
                     .sizeAt = 0x1FF1E880,
                     .uniqueIdAt = 0x1FF1E800,
                     .loaderIdAt = 0x1FF1E7FE,
                     .loaderId = 0x90,
                     .protocol = 0x31},
        .optionBytes = {},
        .optionLayout = OptionLayout::kNone,
        .protectedPages = 1,
        .erasesBanks = true,
        .resetsAfterOptions = false,
    },
    {
        .kind = McuKind::kN32G45x,
        .name = "n32g45x",
        .regions = {{{2048, 256, kStm32F1Page}, {}, {}}},
        .programUnit = 4,
        .writeMultiple = 4,
        .program = kStm32F1Word,
        .massErase = {milliseconds(200), milliseconds(400)},
        .writeOptions = kStm32F1Options,
        .ramSize = 0x24000,
        .loaderRam = 0,
        .commands = {},
        .identity = {.orderCode = "N32G455",
                     .productId = 0,
                     .gdPid = 0,
                     .system = {},
                     .sizeAt = 0,
                     .uniqueIdAt = 0,
                     .loaderIdAt = 0,
                     .loaderId = 0,
                     .protocol = 0},
        .optionBytes = {},
        .optionLayout = OptionLayout::kNone,
        .protectedPages = 1,
        .erasesBanks = false,
        .resetsAfterOptions = false,
    },
}};

template <typename Measure>
uint32_t sumOver(const std::array<FlashRegion, 3>& regions, Measure measure) {
    return std::accumulate(
        regions.begin(), regions.end(), 0U,
        [measure](uint32_t sum, const FlashRegion& region) { return sum + measure(region); });
}

}  // namespace

uint32_t McuPart::flashSize() const {
    return sumOver(regions, [](const FlashRegion& one) { return one.pageSize * one.pages; });
}

uint32_t McuPart::pageCount() const {
    return sumOver(regions, [](const FlashRegion& one) { return one.pages; });
}

std::span<const McuPart> mcuParts() { return kMcuParts; }

const McuPart& partOf(McuKind kind) { return kMcuParts.at(static_cast<size_t>(kind)); }

const McuPart* partNamedIn(std::string_view text) {
    const auto named = [text](const McuPart& part) { return text.find(part.name) != text.npos; };
    const auto* found = std::find_if(kMcuParts.begin(), kMcuParts.end(), named);
    return found == kMcuParts.end() ? nullptr : found;
}

}  // namespace quil::board
