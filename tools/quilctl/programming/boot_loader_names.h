// Names of boot-loader commands as people type and read them: "read-memory".
#pragma once

#include <ctype.h>

#include <string>

#include "isp/boot_loader.h"

namespace quil::tools {

inline std::string bootLoaderName(const isp_cmd_t& row) {
    std::string name = row.name;
    name.erase(name.find_last_not_of(' ') + 1);
    if (name.rfind("CMD_", 0) == 0) name.erase(0, 4);
    for (char& c : name) c = c == '_' ? '-' : static_cast<char>(tolower(c));
    return name;
}

}  // namespace quil::tools
