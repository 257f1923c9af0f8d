#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <ostream>
#include <set>
#include <stdexcept>

#include "board/board_directory.h"
#include "board/mcu/mcu_chip.h"
#include "tools/quilctl/cli.h"
#include "tools/quilctl/files/validators.h"

namespace quil::tools {
namespace {

namespace fs = std::filesystem;

int makeNew(const Cli& cli, const std::string& directory) {
    const auto product = board::productByName(cli.options.product).value_or(board::Product::kHeron);
    board::createBoardDirectory(directory, product);
    cli.console.out << directory << ": a " << board::nameOf(product) << " board\n";
    return kOk;
}

// The small text files of a board that say what state it is in.
constexpr const char* kStateFiles[] = {"product_information", "mcu/values", "properties"};

void printState(std::ostream& out, const fs::path& directory) {
    for (const char* name : kStateFiles) {
        std::ifstream in(directory / name);
        out << name << ":\n";
        for (std::string line; std::getline(in, line);) out << "  " << line << '\n';
    }
}

void printMcu(std::ostream& out, const fs::path& directory) {
    const board::McuImageCheck found = board::checkFlashedMcu(directory);
    out << "mcu/flash:\n  " << (found.problem.empty() ? found.version : found.problem) << '\n';
}

void printFiles(std::ostream& out, const fs::path& directory) {
    std::set<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(directory / "rootfs")) {
        if (entry.is_regular_file()) files.insert(entry.path());
    }
    out << "files:\n";
    char size[16];
    for (const fs::path& file : files) {
        std::snprintf(size, sizeof size, "%10ju", static_cast<uintmax_t>(fs::file_size(file)));
        out << size << "  /" << fs::relative(file, directory / "rootfs").string() << '\n';
    }
}

int showBoard(const Cli& cli, const std::string& given) {
    const std::string& directory = given.empty() ? cli.options.boardDirectory : given;
    if (directory.empty()) {
        cli.console.err << "name a board directory\n";
        return kUsage;
    }
    if (!fs::is_directory(fs::path(directory) / "rootfs")) {
        throw std::runtime_error(directory + " is no board directory");
    }
    printState(cli.console.out, directory);
    printMcu(cli.console.out, directory);
    printFiles(cli.console.out, directory);
    return kOk;
}

}  // namespace

void addBoardCommands(CLI::App& app, Cli& cli) {
    CLI::App* boards = app.add_subcommand("board", "Board directories");
    boards->require_subcommand(1);
    boards->fallthrough();
    boards->footer("Example: quilctl board new my-board --product Wren_t507");

    auto made = std::make_shared<std::string>();
    CLI::App* making = boards->add_subcommand("new", "Make a board as it leaves the factory");
    making->add_option("DIR", *made, "An empty or new directory")->required();
    making->footer("Example: quilctl board new my-board --product Kestrel");
    making->callback([&cli, made] { cli.action = [&cli, made] { return makeNew(cli, *made); }; });

    auto shown = std::make_shared<std::string>();
    CLI::App* showing = boards->add_subcommand("show", "Print a board's state and files");
    showing->add_option("DIR", *shown, "The board directory (default: --board)");
    showing->footer("Example: quilctl board show my-board");
    showing->callback(
        [&cli, shown] { cli.action = [&cli, shown] { return showBoard(cli, *shown); }; });
}

}  // namespace quil::tools
