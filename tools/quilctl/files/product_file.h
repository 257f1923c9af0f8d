// The keys of product.ini, and what can be wrong with a file of them.
#pragma once

#include <stddef.h>

#include <filesystem>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace quil::tools {

enum class KeyKind {
    kText,     // any text that fits its field
    kPath,     // an absolute path that fits its field
    kDevice,   // the same, and it must be set for the MCU link to come up
    kBaud,     // a rate that the serial port can be set to
    kGpio,     // a line number, at least 1
    kNumber,   // 0 or more
    kCount,    // 1 or more
    kNonZero,  // anything but 0
};

struct ProductKey {
    const char* section;
    const char* key;
    KeyKind kind;
    size_t offset;       // of its field in config_info_t
    size_t capacity;     // of its field
    const char* atBoot;  // what happens with a value that is missing or unusable
};

std::span<const ProductKey> productKeys();
bool isString(KeyKind kind);

struct ProductProblem {
    int line;  // 0 when it belongs to no line
    std::string key;
    std::string text;
    bool isWarning = false;
    std::string right = {};   // what would be right
    std::string atBoot = {};  // what happens at boot if it stays
};

// A value as the library reads it, without a comment that stands behind it by mistake.
struct ProductValue {
    int line;
    std::string text;
};
using ProductValues = std::map<std::string, ProductValue>;  // by "[section] key"

// Checks the text of a product file; problems come in the order of their lines. `root`: the root of
// the board's file system, whose files the paths must name; without one no file is looked at.
std::vector<ProductProblem> checkProductFile(const std::string& content,
                                             const std::filesystem::path& root = {});

}  // namespace quil::tools
