// Checks of single arguments, so that a mistake is a usage error with the argument's name in it.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/quilctl/output/values.h"

namespace quil::tools {

inline CLI::Validator numberUpTo(uint64_t maximum) {
    return CLI::Validator(
        [maximum](std::string& text) -> std::string {
            if (parseNumber(text, maximum)) return {};
            return "'" + text + "' is no number up to " + std::to_string(maximum) +
                   " (decimal, or hexadecimal after 0x)";
        },
        "NUMBER");
}

inline CLI::Validator hexBytes() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            if (parseHex(text)) return {};
            return "'" + text + "' are no bytes: pairs of hexadecimal digits such as 01 0A";
        },
        "HEX");
}

// For what is written beside the result, which has standard output.
inline CLI::Validator outputFile() {
    return CLI::Validator(
        [](std::string& name) -> std::string {
            return name != "-" ? "" : "a file is needed, not standard output (./- is one)";
        },
        "");
}

inline CLI::Validator chipName() {
    return CLI::IsMember({"gd32f303", "gd32f470", "gd32e503", "stm32h750", "n32g45x"});
}

// The bytes of arguments that have passed the check above.
inline Bytes bytesOf(const std::vector<std::string>& words) {
    Bytes all;
    for (const std::string& word : words) {
        const Bytes bytes = parseHex(word).value_or(Bytes{});
        all.insert(all.end(), bytes.begin(), bytes.end());
    }
    return all;
}

}  // namespace quil::tools
