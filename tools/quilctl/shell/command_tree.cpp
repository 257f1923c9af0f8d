#include "tools/quilctl/shell/command_tree.h"

#include <CLI/CLI.hpp>

namespace quil::tools {
namespace {

// The words of "NAME:{Heron,Kestrel}".
std::vector<std::string> wordsIn(const std::string& type) {
    const size_t begin = type.find('{'), end = type.find('}', begin);
    if (begin == std::string::npos || end == std::string::npos) return {};
    return CLI::detail::split(type.substr(begin + 1, end - begin - 1), ',');
}

// "NAME" of "NAME:{Heron,Kestrel}", "HEX" of "TEXT:HEX": the last is the nearest to what is meant.
std::string valueIn(const std::string& type) {
    const std::string names = type.substr(0, type.find(":{"));
    return names.substr(names.rfind(':') + 1);
}

CommandOption optionOf(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    CommandOption made;
    made.name = (option.get_positional() ? "" : "--") + option.get_single_name();
    made.value = option.get_items_expected_max() == 0 ? "" : valueIn(type);
    made.words = wordsIn(type);
    made.isFile = type.find("FILE") != std::string::npos;
    made.isDirectory = type.find("DIR") != std::string::npos;
    made.isRequired = option.get_required();
    made.purpose = option.get_description();
    return made;
}

CommandNode nodeOf(const CLI::App& app, const std::vector<std::string>& words) {
    CommandNode node;
    node.words = words;
    node.purpose = app.get_description();
    node.notes = app.get_footer();
    for (const CLI::Option* option : app.get_options()) {
        (option->get_positional() ? node.arguments : node.options).push_back(optionOf(*option));
    }
    for (const CLI::App* command :
         app.get_subcommands([](const CLI::App* /*any*/) { return true; })) {
        auto longer = words;
        longer.push_back(command->get_name());
        node.commands.push_back(nodeOf(*command, longer));
    }
    return node;
}

void collect(const CommandNode& command, std::vector<const CommandNode*>& all) {
    all.push_back(&command);
    for (const CommandNode& below : command.commands) collect(below, all);
}

}  // namespace

std::string CommandNode::path() const { return CLI::detail::join(words, " "); }

CommandNode commandTreeOf(const CLI::App& app) { return nodeOf(app, {}); }

std::vector<const CommandNode*> allOf(const CommandNode& command) {
    std::vector<const CommandNode*> all;
    collect(command, all);
    return all;
}

}  // namespace quil::tools
