#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <ostream>
#include <set>

#include "board/board_directory.h"
#include "board/mcu/mcu_chip.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/validators.h"

namespace quil::tools {
namespace {

namespace fs = std::filesystem;

struct DirectoryArguments {
    std::string directory;
};

void makeNew(const Cli& cli, const DirectoryArguments& arguments, Result& result) {
    const auto product = board::productByName(cli.options.product).value_or(board::Product::kHeron);
    board::createBoardDirectory(arguments.directory, product);
    result.json = {{"directory", arguments.directory}, {"product", board::nameOf(product)}};
    result.text << arguments.directory << ": a " << board::nameOf(product) << " board\n";
}

// The small text files of a board that say what state it is in.
constexpr const char* kStateFiles[] = {"product_information", "mcu/values", "properties"};

void addState(Result& result, const fs::path& directory) {
    for (const char* name : kStateFiles) {
        std::ifstream in(directory / name);
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
    for (const auto& entry : fs::recursive_directory_iterator(directory / "rootfs")) {
        if (entry.is_regular_file()) files.insert(entry.path());
    }
    result.text << "files:\n";
    result.json["files"] = Json::array();
    for (const fs::path& file : files) {
        const std::string path = "/" + fs::relative(file, directory / "rootfs").string();
        const uintmax_t size = fs::file_size(file);
        char column[24];
        snprintf(column, sizeof(column), "%10ju", size);
        result.text << column << "  " << path << '\n';
        result.json["files"].push_back({{"path", path}, {"size", size}});
    }
}

void showBoard(const Cli& cli, const DirectoryArguments& arguments, Result& result) {
    if (!arguments.directory.empty() && (cli.options.given & kBoardOption) != 0) {
        throw Failure(kUsage, "--board: no effect beside the directory " + arguments.directory);
    }
    const std::string& directory =
        arguments.directory.empty() ? cli.options.boardDirectory : arguments.directory;
    if (directory.empty()) throw Failure(kUsage, "name a board directory, here or with --board");
    if (!fs::is_directory(fs::path(directory) / "rootfs")) {
        const bool isThere = fs::exists(directory);
        throw Failure(
            isThere ? kNoBoard : kUsage,
            directory + (isThere ? " is no board directory (no rootfs in it)" : " does not exist"));
    }
    result.json["directory"] = directory;
    addState(result, directory);
    addMcu(result, directory);
    addFiles(result, directory);
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
    made.command.add_option("DIR", made.arguments.directory, "An empty or new directory")
        ->required();
    const auto shown = addVerb(boards, cli,
                               {"show", "Print a board's state and files",
                                "Example: quilctl board show my-board", kBoardOption},
                               showBoard);
    shown.command.add_option("DIR", shown.arguments.directory,
                             "The board directory (default: --board)");
}

}  // namespace quil::tools
