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
    {McuKind::kGd32F303,
     "gd32f303",
     {{{2048, 256}, {4096, 128}}},
     4,
     2,
     microseconds(30),
     milliseconds(15),
     milliseconds(1500),
     0x18000,
     kGdCommands,
     0x30,
     0x0414,
     0x46455633,
     false},
    {McuKind::kGd32F470,
     "gd32f470",
     {{{4096, 256}, {0, 0}}},
     4,
     2,
     microseconds(30),
     milliseconds(15),
     milliseconds(1500),
     0x70000,
     kGdCommands,
     0x31,
     0x0419,
     0x4E455A30,
     false},
    // Its identifier is none that hosts look for.
    {McuKind::kGd32E503,
     "gd32e503",
     {{{8192, 64}, {0, 0}}},
     8,
     2,
     microseconds(40),
     milliseconds(20),
     milliseconds(1500),
     0x20000,
     kGdCommands,
     0x30,
     0x0444,
     0x45353033,
     false},
    // The boot loader is that of the parts with more flash: it passes over what this one has not.
    {McuKind::kStm32H750,
     "stm32h750",
     {{{131072, 1}, {0, 0}}},
     32,
     4,
     microseconds(100),
     milliseconds(1100),
     milliseconds(1500),
     0x20000,
     kStCommands,
     0x31,
     0x0450,
     0,
     true},
    {McuKind::kN32G45x,
     "n32g45x",
     {{{2048, 256}, {0, 0}}},
     4,
     4,
     microseconds(100),
     milliseconds(20),
     milliseconds(200),
     0x24000,
     {},
     0,
     0,
     0,
     false},
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
