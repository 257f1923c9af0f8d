// The command line as data: what completions and manual pages are made of.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace quil::tools {

// An option, or an argument by its place.
struct CommandOption {
    std::string name;                // "--board"; "FILE" of an argument
    std::string value;               // what follows it: "DIR"; empty for a flag
    std::vector<std::string> words;  // the values that there are; empty when any will do
    bool isFile = false, isDirectory = false;
    bool isRequired = false;
    std::string purpose;
};

struct CommandNode {
    std::vector<std::string> words;  // {"mcu", "update"}; none of the program itself
    std::string purpose, notes;
    std::vector<CommandOption> options, arguments;
    std::vector<CommandNode> commands;

    std::string name() const { return words.empty() ? "" : words.back(); }
    std::string path() const;  // "mcu update"
};

CommandNode commandTreeOf(const CLI::App& app);

// The command and all below it, the command first.
std::vector<const CommandNode*> allOf(const CommandNode& command);

}  // namespace quil::tools
