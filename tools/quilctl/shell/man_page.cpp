#include "tools/quilctl/shell/man_page.h"

#include <algorithm>

#include "tools/quilctl/output/exit_codes.h"

namespace quil::tools {
namespace {

// Text as roff prints it letter by letter.
std::string roff(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        const bool beginsLine = escaped.empty() || escaped.back() == '\n';
        if (beginsLine && (c == '.' || c == '\'')) escaped += "\\&";
        if (c == '\\') {
            escaped += "\\e";
        } else if (c == '-') {
            escaped += "\\-";
        } else if (c == '\'') {
            escaped += "\\(aq";
        } else {
            escaped += c;
        }
    }
    return escaped;
}

std::string bold(const std::string& text) { return "\\fB" + roff(text) + "\\fR"; }
std::string italic(const std::string& text) { return "\\fI" + roff(text) + "\\fR"; }

std::string section(const std::string& name, const std::string& text) {
    return text.empty() ? "" : ".SH " + name + "\n" + text;
}

std::string item(const std::string& head, const std::string& text) {
    return ".TP\n" + head + "\n" + (text.empty() ? "\\&" : roff(text)) + "\n";
}

std::string synopsisOf(const CommandNode& command) {
    std::string text = bold("quilctl" + (command.words.empty() ? "" : " " + command.path()));
    text += " [" + italic("options") + "]";
    if (!command.commands.empty()) text += " " + italic("command") + " ...";
    for (const CommandOption& argument : command.arguments) {
        text +=
            argument.isRequired ? " " + italic(argument.name) : " [" + italic(argument.name) + "]";
    }
    return text + "\n";
}

std::string optionsOf(const std::vector<CommandOption>& options) {
    std::string text;
    for (const CommandOption& option : options) {
        std::string purpose = option.purpose, words;
        for (const std::string& word : option.words) words += (words.empty() ? "" : ", ") + word;
        if (!words.empty()) purpose += (purpose.empty() ? "One of: " : ". One of: ") + words;
        text += item(bold(option.name) + (option.value.empty() || option.value == option.name
                                              ? ""
                                              : " " + italic(option.value)),
                     purpose);
    }
    return text;
}

std::string commandsOf(const CommandNode& command) {
    std::string text;
    for (const CommandNode* below : allOf(command)) {
        if (below == &command || !below->commands.empty()) continue;
        text += item(bold(below->path()), below->purpose);
    }
    return text;
}

std::string exitStatus() {
    std::string text;
    for (const ExitCodeRow& row : kExitCodes) {
        text += item(bold(std::to_string(row.code)), row.meaning);
    }
    return text;
}

std::string environment() {
    return item(bold("QUIL_BOARD"), "The board directory of a command without --board.") +
           item(bold("NO_COLOR"), "When set, nothing is coloured. TERM=dumb does the same.");
}

std::string preformatted(const std::string& text) {
    std::string lines = text;
    lines.erase(lines.find_last_not_of('\n') + 1);
    return lines.empty() ? "" : ".nf\n" + roff(lines) + "\n.fi\n";
}

std::string seeAlso(const CommandNode& command) {
    std::string text;
    for (const CommandNode& below : command.commands) {
        text += (text.empty() ? "" : ",\n") + bold(manPageName(below)) + "(1)";
    }
    if (!command.words.empty()) text += (text.empty() ? "" : ",\n") + bold("quilctl") + "(1)";
    return text + "\n";
}

}  // namespace

std::string manPageName(const CommandNode& command) {
    std::string name = "quilctl";
    for (const std::string& word : command.words) name += "-" + word;
    return name;
}

std::string manPage(const CommandNode& command, const std::string& version,
                    const std::string& date) {
    const std::string name = manPageName(command);
    std::string title = name;
    std::transform(title.begin(), title.end(), title.begin(),
                   [](unsigned char c) { return static_cast<char>(toupper(c)); });
    const bool isProgram = command.words.empty();
    return ".TH " + roff(title) + " 1 " + date + " \"quilctl " + version + "\"\n" +
           section("NAME", roff(name) + " \\- " + roff(command.purpose) + "\n") +
           section("SYNOPSIS", synopsisOf(command)) +
           section("DESCRIPTION",
                   isProgram ? roff(command.purpose) + "\n" : preformatted(command.notes)) +
           section("ARGUMENTS", optionsOf(command.arguments)) +
           section(isProgram ? "GLOBAL OPTIONS" : "OPTIONS", optionsOf(command.options)) +
           (isProgram ? "" : ".P\nThe global options are in\n.BR quilctl (1).\n") +
           section("COMMANDS", commandsOf(command)) +
           (isProgram ? section("EXIT STATUS", exitStatus()) + section("ENVIRONMENT", environment())
                      : "") +
           section("SEE ALSO", seeAlso(command));
}

}  // namespace quil::tools
