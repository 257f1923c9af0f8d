// Reads Android.bp files, as far as the project's own use the language: modules of strings, lists,
// maps and truth values. bpfmt, which has the real parser, is run over them as well.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace quil::tests {

struct BlueprintValue {
    bool isList = false;
    std::vector<std::string> words;  // a string, a list's strings; "true" and "false"
    std::map<std::string, BlueprintValue> properties;  // of a map
};

struct BlueprintModule {
    std::string type;
    std::map<std::string, BlueprintValue> properties;

    // The property's strings; none when it is not there.
    std::vector<std::string> words(const std::string& property) const;
    std::string word(const std::string& property) const;  // empty when it is not there
};

// In the order of the text. Throws std::runtime_error, with the line, on what it cannot read.
std::vector<BlueprintModule> readBlueprint(const std::string& text);

// The module with the properties of its defaults: lists have the defaults' strings in front.
BlueprintModule withDefaults(const BlueprintModule& module,
                             const std::vector<BlueprintModule>& all);

}  // namespace quil::tests
