// The service's commands by name, and who answers them.
#pragma once

#include <stdint.h>

#include <array>
#include <optional>
#include <string>

namespace quil::tools {

struct CommandRow {
    const char* name;  // "": the numbers have no names
    uint32_t first, last;
    bool reads, writes;  // by get, by set
    const char* payload;
    const char* meaning;
};
const std::array<CommandRow, 9>& commandTable();
const CommandRow* commandNamed(const std::string& name);

// A number, or a name of the table.
std::optional<uint32_t> commandCodeOf(const std::string& text);

// What to say of a word that is neither.
std::string unknownCommand(const std::string& text);

bool isMcuCommand(uint32_t command);  // the service passes it to the MCU
bool isAnswered(uint32_t command);    // by anybody

}  // namespace quil::tools
