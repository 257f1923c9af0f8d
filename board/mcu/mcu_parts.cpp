#include "board/mcu/mcu_parts.h"

#include <algorithm>

namespace quil::board {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr uint8_t kGdCommands[] = {0x00, 0x01, 0x02, 0x06, 0x11, 0x21, 0x31,
                                   0x43, 0x44, 0x63, 0x73, 0x82, 0x92};
constexpr uint8_t kStCommands[] = {0x00, 0x01, 0x02, 0x11, 0x21, 0x31,
                                   0x44, 0x63, 0x73, 0x82, 0x92};

constexpr std::array<McuPart, 5> kMcuParts = {{
    {
        .kind = McuKind::kGd32F303,
        .name = "gd32f303",
        .regions = {{{2048, 256}, {4096, 128}}},
        .programUnit = 4,
        .writeMultiple = 2,
        .programTime = microseconds(30),
        .eraseTime = milliseconds(15),
        .massEraseTime = milliseconds(1500),
        .ramSize = 0x18000,
        .commands = kGdCommands,
        .loaderVersion = 0x30,
        .productId = 0x0414,
        .gdPid = 0x46455633,
        .ignoresAbsentPages = false,
    },
    {
        .kind = McuKind::kGd32F470,
        .name = "gd32f470",
        .regions = {{{4096, 256}, {0, 0}}},
        .programUnit = 4,
        .writeMultiple = 2,
        .programTime = microseconds(30),
        .eraseTime = milliseconds(15),
        .massEraseTime = milliseconds(1500),
        .ramSize = 0x70000,
        .commands = kGdCommands,
        .loaderVersion = 0x31,
        .productId = 0x0419,
        .gdPid = 0x4E455A30,
        .ignoresAbsentPages = false,
    },
    // Hosts do not know its identifier.
    {
        .kind = McuKind::kGd32E503,
        .name = "gd32e503",
        .regions = {{{8192, 64}, {0, 0}}},
        .programUnit = 8,
        .writeMultiple = 2,
        .programTime = microseconds(40),
        .eraseTime = milliseconds(20),
        .massEraseTime = milliseconds(1500),
        .ramSize = 0x20000,
        .commands = kGdCommands,
        .loaderVersion = 0x30,
        .productId = 0x0444,
        .gdPid = 0x45353033,
        .ignoresAbsentPages = false,
    },
    // Its boot loader is that of parts with more flash, and skips the pages that this one lacks.
    {
        .kind = McuKind::kStm32H750,
        .name = "stm32h750",
        .regions = {{{131072, 1}, {0, 0}}},
        .programUnit = 32,
        .writeMultiple = 4,
        .programTime = microseconds(100),
        .eraseTime = milliseconds(1100),
        .massEraseTime = milliseconds(1500),
        .ramSize = 0x20000,
        .commands = kStCommands,
        .loaderVersion = 0x31,
        .productId = 0x0450,
        .gdPid = 0,
        .ignoresAbsentPages = true,
    },
    {
        .kind = McuKind::kN32G45x,
        .name = "n32g45x",
        .regions = {{{2048, 256}, {0, 0}}},
        .programUnit = 4,
        .writeMultiple = 4,
        .programTime = microseconds(100),
        .eraseTime = milliseconds(20),
        .massEraseTime = milliseconds(200),
        .ramSize = 0x24000,
        .commands = {},
        .loaderVersion = 0,
        .productId = 0,
        .gdPid = 0,
        .ignoresAbsentPages = false,
    },
}};

}  // namespace

std::span<const McuPart> mcuParts() { return kMcuParts; }

const McuPart& partOf(McuKind kind) { return kMcuParts.at(static_cast<size_t>(kind)); }

const McuPart* partNamedIn(std::string_view text) {
    const auto named = [text](const McuPart& part) { return text.find(part.name) != text.npos; };
    const auto* found = std::find_if(kMcuParts.begin(), kMcuParts.end(), named);
    return found == kMcuParts.end() ? nullptr : found;
}

}  // namespace quil::board
