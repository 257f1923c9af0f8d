#include "tools/quilctl/files/command_table.h"

#include <algorithm>
#include <array>
#include <vector>

#include "service/tclv_msg.h"
#include "tools/quilctl/output/nearest_words.h"
#include "tools/quilctl/output/values.h"

namespace quil::tools {
namespace {

using ::quil::hardware::quilservicemanager::implementation::kCommandLowPower;
using ::quil::hardware::quilservicemanager::implementation::kCommandNormalPower;
using ::quil::hardware::quilservicemanager::implementation::kCommandSelfTest;
using ::quil::hardware::quilservicemanager::implementation::kMcuCommandEnd;

constexpr char kValue[] = "kept by the MCU; else 0s";

constexpr std::array<CommandRow, 9> kCommands = {{
    {"", 0, 0, true, true, "any bytes", kValue},
    {"version", 1, 1, true, false, "none", "its firmware version, text"},
    {"", 2, kMcuCommandEnd - 1, true, true, "any bytes", kValue},
    {"", kMcuCommandEnd, kCommandLowPower - 1, false, false, "-", "nobody answers"},
    {"low-power", kCommandLowPower, kCommandLowPower, true, true, "none",
     "low-power mode, no answer"},
    {"normal-power", kCommandNormalPower, kCommandNormalPower, true, true, "none",
     "normal power, no answer"},
    {"", kCommandNormalPower + 1, kCommandSelfTest - 1, false, false, "-", "nobody answers"},
    {"self-test", kCommandSelfTest, kCommandSelfTest, true, false, "none",
     "runs it, answers a record"},
    {"", kCommandSelfTest + 1, UINT32_MAX, false, false, "-", "nobody answers"},
}};

}  // namespace

const std::array<CommandRow, 9>& commandTable() { return kCommands; }

const CommandRow* commandNamed(const std::string& name) {
    const auto* row = std::find_if(kCommands.begin(), kCommands.end(), [&](const CommandRow& one) {
        return !name.empty() && one.name == name;
    });
    return row == kCommands.end() ? nullptr : row;
}

std::optional<uint32_t> commandCodeOf(const std::string& text) {
    if (const CommandRow* row = commandNamed(text)) return row->first;
    const auto number = parseNumber(text, UINT32_MAX);
    return number ? std::optional(static_cast<uint32_t>(*number)) : std::nullopt;
}

std::string unknownCommand(const std::string& text) {
    std::vector<std::string> names;
    for (const CommandRow& row : kCommands) {
        if (*row.name != '\0') names.emplace_back(row.name);
    }
    std::string list;
    for (const std::string& name : names) list += ", " + name;
    const auto nearest = nearestWords(text, names);
    return "'" + text + "' is neither a number up to 0xFFFFFFFF nor a name" +
           (nearest.empty() ? list.replace(0, 1, ":") : "; the nearest: " + nearest.front());
}

bool isMcuCommand(uint32_t command) { return command < kMcuCommandEnd; }

bool isAnswered(uint32_t command) {
    return std::any_of(kCommands.begin(), kCommands.end(), [command](const CommandRow& row) {
        return row.reads && row.first <= command && command <= row.last;
    });
}

}  // namespace quil::tools
