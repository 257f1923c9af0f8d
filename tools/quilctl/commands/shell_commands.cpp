// What a shell and `man` want to know of the command line.
#include <array>
#include <filesystem>
#include <string_view>

#include "board/core/whole_file.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/shell/completion.h"
#include "tools/quilctl/shell/man_page.h"

namespace quil::tools {
namespace {

namespace fs = std::filesystem;

struct ShellRow {
    std::string_view name;
    std::string (*completion)(const CommandNode& program);
};
constexpr std::array<ShellRow, 3> kShells = {
    {{"bash", bashCompletion}, {"zsh", zshCompletion}, {"fish", fishCompletion}}};

struct CompletionArguments {
    const CLI::App* program = nullptr;
    std::string shell;
};

void completion(const Cli& /*cli*/, const CompletionArguments& arguments, Result& result) {
    const CommandNode program = commandTreeOf(*arguments.program);
    for (const ShellRow& row : kShells) {
        if (row.name != arguments.shell) continue;
        const std::string script = row.completion(program);
        result.text << script;
        result.json["script"] = script;
    }
}

struct ManArguments {
    const CLI::App* program = nullptr;
    std::vector<std::string> words;
    std::string directory;
};

void writePages(const CommandNode& program, const std::string& directory, Result& result) {
    std::error_code error;
    fs::create_directories(directory, error);
    if (error) throw failureOf(kNotWritten, directory, error.value());
    result.json["files"] = Json::array();
    for (const CommandNode* command : allOf(program)) {
        const std::string file = (fs::path(directory) / (manPageName(*command) + ".1")).string();
        try {
            board::writeWholeFile(file, manPage(*command, kVersion, kReleased));
        } catch (const std::runtime_error& failure) {
            throw Failure(kNotWritten, failure.what());
        }
        result.text << file << '\n';
        result.json["files"].push_back(file);
    }
}

void man(const Cli& /*cli*/, const ManArguments& arguments, Result& result) {
    const CommandNode program = commandTreeOf(*arguments.program);
    if (!arguments.directory.empty()) return writePages(program, arguments.directory, result);
    for (const CommandNode* command : allOf(program)) {
        if (command->words != arguments.words) continue;
        const std::string page = manPage(*command, kVersion, kReleased);
        result.text << page;
        result.json["page"] = page;
        return;
    }
    std::string words;
    for (const std::string& word : arguments.words) words += (words.empty() ? "" : " ") + word;
    throw Failure(kUsage, "there is no command '" + words + "' (see quilctl --help)");
}

}  // namespace

void addShellCommands(CLI::App& app, Cli& cli) {
    const auto shells = addVerb(app, cli,
                                {"completion", "Print the completion of a shell",
                                 "Example: source <(quilctl completion bash)\n"
                                 "         quilctl completion fish | source",
                                 kNoBoardOption},
                                completion);
    shells.arguments.program = &app;
    shells.command.add_option("SHELL", shells.arguments.shell, "The shell")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));
    const auto pages = addVerb(app, cli,
                               {"man", "Print a manual page",
                                "Example: quilctl man mcu update | man -l -\n"
                                "         quilctl man --into /usr/local/share/man/man1",
                                kNoBoardOption},
                               man);
    pages.arguments.program = &app;
    pages.command.add_option("COMMAND", pages.arguments.words, "The command's words");
    pages.command
        .add_option("--into", pages.arguments.directory, "Write every page to a directory")
        ->type_name("DIR");
}

}  // namespace quil::tools
