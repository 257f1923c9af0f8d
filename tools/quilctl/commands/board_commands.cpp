#include <stdio.h>

#include <filesystem>
#include <ostream>
#include <set>
#include <sstream>

#include "board/board_check.h"
#include "board/board_directory.h"
#include "board/core/whole_file.h"
#include "board/mcu/mcu_chip.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/validators.h"
#include "tools/quilctl/session/board_use.h"

namespace quil::tools {
namespace {

namespace fs = std::filesystem;

struct DirectoryArguments {
    std::string directory;
};

void makeNew(const Cli& cli, const DirectoryArguments& arguments, Result& result) {
    const auto product = board::productByName(cli.options.product).value_or(board::Product::kHeron);
    if (arguments.directory.empty()) throw Failure(kUsage, "the board's directory has no name");
    board::createBoardDirectory(arguments.directory, product, "", board::Keeping::kDurable);
    result.json = {{"directory", arguments.directory}, {"product", board::nameOf(product)}};
    result.text << arguments.directory << ": a " << board::nameOf(product) << " board\n";
}

// The small text files of a board that say what state it is in.
constexpr const char* kStateFiles[] = {"product_information", "mcu/values", "properties"};

void addState(Result& result, const fs::path& directory) {
    for (const char* name : kStateFiles) {
        std::istringstream in(board::readWholeFile(directory / name).value_or(""));
        auto lines = Json::array();
        result.text << name << ":\n";
        for (std::string line; std::getline(in, line);) {
            result.text << "  " << line << '\n';
            lines.push_back(line);
        }
        result.json["state"][name] = lines;
    }
}

void addMcu(Result& result, const fs::path& directory) {
    const board::McuImageCheck found = board::checkFlashedMcu(directory);
    result.text << "mcu/flash:\n  " << (found.problem.empty() ? found.version : found.problem)
                << '\n';
    result.json["mcu"] = {{"version", found.version}, {"problem", found.problem}};
}

void addFiles(Result& result, const fs::path& directory) {
    std::set<fs::path> files;
    std::error_code error;
    for (auto entry = fs::recursive_directory_iterator(directory / "rootfs", error);
         !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        if (entry->is_regular_file(error)) files.insert(entry->path());
    }
    if (error) throw failureOf(kNoBoard, (directory / "rootfs").string(), error.value());
    result.text << "files:\n";
    result.json["files"] = Json::array();
    for (const fs::path& file : files) {
        const std::string path = "/" + fs::relative(file, directory / "rootfs").string();
        const uintmax_t size = fs::file_size(file, error);
        char column[24];
        snprintf(column, sizeof(column), "%10ju", error ? 0 : size);
        result.text << column << "  " << path << '\n';
        result.json["files"].push_back({{"path", path}, {"size", error ? 0 : size}});
    }
}

// The directory that a command is about, in use by it.
std::string directoryOf(const Cli& cli, const DirectoryArguments& arguments) {
    if (!arguments.directory.empty() && (cli.options.given & kBoardOption) != 0) {
        throw Failure(kUsage, "--board: no effect beside the directory " + arguments.directory);
    }
    const std::string& directory =
        arguments.directory.empty() ? cli.options.boardDirectory : arguments.directory;
    if (directory.empty()) throw Failure(kUsage, "name a board directory, here or with --board");
    return directory;
}

void showBoard(const Cli& cli, const DirectoryArguments& arguments, Result& result) {
    const std::string directory = directoryOf(cli, arguments);
    const auto use =
        useBoard(directory, board::DirectoryLock::Use::kReader, cli.options, cli.console);
    board::requireBoard(directory);
    result.json["directory"] = directory;
    addState(result, directory);
    addMcu(result, directory);
    addFiles(result, directory);
}

std::string lineOf(const std::string& directory, const board::BoardProblem& problem) {
    std::string text = directory + (problem.file.empty() ? "" : "/" + problem.file) + ":";
    if (problem.line > 0) text += std::to_string(problem.line) + ":";
    if (problem.severity == board::Severity::kWarning) text += " warning:";
    return text + " " + problem.what + "\n";
}

Json jsonOf(const board::BoardProblem& problem) {
    return {{"file", problem.file},
            {"line", problem.line},
            {"severity", board::nameOf(problem.severity)},
            {"problem", problem.what},
            {"remedy", problem.remedy}};
}

// Throws a Failure when there are more than warnings.
void addProblems(Result& result, const std::string& directory,
                 const std::vector<board::BoardProblem>& problems, const std::string& advice) {
    size_t errors = 0;
    result.json["problems"] = Json::array();
    for (const board::BoardProblem& problem : problems) {
        result.text << lineOf(directory, problem);
        if (!problem.remedy.empty()) result.text << "  repair: " << problem.remedy << '\n';
        result.json["problems"].push_back(jsonOf(problem));
        if (problem.severity != board::Severity::kWarning) ++errors;
    }
    if (errors == 0) return void(result.text << directory << ": good\n");
    throw Failure(kBadData, directory + ": " + std::to_string(errors) +
                                (errors == 1 ? " error" : " errors") + advice);
}

void checkBoard(const Cli& cli, const DirectoryArguments& arguments, Result& result) {
    const std::string directory = directoryOf(cli, arguments);
    const auto use =
        useBoard(directory, board::DirectoryLock::Use::kReader, cli.options, cli.console);
    result.json["directory"] = directory;
    addProblems(result, directory,
                board::checkBoard(directory, board::productByName(cli.options.product)),
                " (quilctl board repair " + directory + ")");
}

void repairBoard(const Cli& cli, const DirectoryArguments& arguments, Result& result) {
    const std::string directory = directoryOf(cli, arguments);
    if (board::mendLockFile(directory)) {
        result.text << directory << "/" << board::kLockFile << ": put aside, it was no file\n";
    }
    const auto use =
        useBoard(directory, board::DirectoryLock::Use::kOwner, cli.options, cli.console);
    const auto product = board::productByName(cli.options.product);
    result.json = {{"directory", directory}, {"mended", Json::array()}};
    for (const board::BoardProblem& problem : board::repairBoard(directory, product)) {
        result.text << lineOf(directory, problem) << "  " << problem.remedy << '\n';
        result.json["mended"].push_back(jsonOf(problem));
    }
    addProblems(result, directory, board::checkBoard(directory, product),
                " that cannot be mended here");
}

void addVerbWithDirectory(CLI::App& boards, Cli& cli, const VerbText& text,
                          void (*act)(const Cli&, const DirectoryArguments&, Result&)) {
    const auto verb = addVerb(boards, cli, text, act);
    const auto take = [&cli, &arguments = verb.arguments](const std::string& directory) {
        arguments.directory = cli.directory = directory;
    };
    verb.command.add_option_function<std::string>("DIR", take,
                                                  "The board directory (default: --board)");
}

}  // namespace

void addBoardCommands(CLI::App& app, Cli& cli) {
    CLI::App& boards = addGroup(app, {"board", "Board directories",
                                      "Example: quilctl board new my-board --product Wren_t507"});
    const auto made =
        addVerb(boards, cli,
                {"new", "Make a board as it leaves the factory",
                 "Example: quilctl board new my-board --product Kestrel", kProductOption},
                makeNew);
    made.command.add_option("DIR", made.arguments.directory, "An empty or a new directory")
        ->required();
    addVerbWithDirectory(boards, cli,
                         {"show", "Print a board's state and files",
                          "Example: quilctl board show my-board", kBoardOption},
                         showBoard);
    addVerbWithDirectory(boards, cli,
                         {"check", "Say what is damaged in a board directory",
                          "Exit code 3 when something is.\nExample: quilctl board check my-board",
                          kBoardOption | kProductOption},
                         checkBoard);
    addVerbWithDirectory(
        boards, cli,
        {"repair", "Mend a board directory",
         "What it changes stays aside as NAME.damaged. Where the directory does not say which\n"
         "product it is, --product does.\n"
         "Example: quilctl board repair my-board",
         kBoardOption | kProductOption, Place::kOff},
        repairBoard);
}

}  // namespace quil::tools
