#include <string.h>

#include <algorithm>
#include <filesystem>

#include "board/mcu/mcu_chip.h"
#include "config/config_info.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/input_file.h"
#include "tools/quilctl/files/product_file.h"
#include "tools/quilctl/output/wrap.h"
#include "tools/quilctl/session/board_session.h"

namespace quil::tools {
namespace {

const char* fieldOf(const ProductKey& key) {
    return reinterpret_cast<const char*>(config_info) + key.offset;
}

int32_t integerField(const ProductKey& key) {
    int32_t value = 0;
    memcpy(&value, fieldOf(key), sizeof(value));
    return value;
}

void addValue(Result& result, const char* section, const char* key, const std::string& value) {
    char columns[64];
    snprintf(columns, sizeof(columns), "%-9s %-21s ", section, key);
    result.text << columns << value << '\n';
}

void showConfig(const Cli& cli, Result& result) {
    BoardSession session(cli.options, cli.console, true, BoardSession::Use::kReader);
    if (parseConfigInfo() != 0) {
        throw Failure(kBadData, "the product configuration could not be read");
    }
    for (const ProductKey& key : productKeys()) {
        Json& value = result.json[key.section][key.key];
        if (isString(key.kind)) {
            value = fieldOf(key);
            addValue(result, key.section, key.key, fieldOf(key));
        } else {
            value = integerField(key);
            addValue(result, key.section, key.key, std::to_string(integerField(key)));
        }
    }
    result.json["mod_id"] = config_info->mod_id;
    addValue(result, "-", "mod_id", std::to_string(config_info->mod_id));
}

// A product file to check, and the board whose files it names.
struct CheckedFile {
    std::string file;
    std::string shown;           // its name in messages
    std::filesystem::path root;  // of the board's file system; empty: no board is known
};

CheckedFile fileOf(const std::filesystem::path& board) {
    const std::filesystem::path file = board / board::kProductFile;
    return {file.string(), file.string(), board / "rootfs"};
}

// A file that lies in a board belongs to that board.
CheckedFile fileNamed(const std::string& file, const std::string& board) {
    const auto whole = std::filesystem::absolute(file).lexically_normal().string();
    const size_t length = sizeof(board::kProductFile) - 1;
    const bool isInBoard = whole.size() > length &&
                           whole.compare(whole.size() - length, length, board::kProductFile) == 0;
    if (isInBoard) return {file, file, whole.substr(0, whole.size() - length) + "rootfs"};
    if (board.empty()) return {file, file, {}};
    return {file, file, std::filesystem::path(board) / "rootfs"};
}

// A line of a finding, broken between words so that it fits the screen, or 80 columns of a file.
void addIndented(Result& result, const Screen& screen, const std::string& label,
                 const std::string& text) {
    constexpr size_t kWidth = 80, kLabel = 8;
    std::string line = "    " + label + std::string(kLabel - label.size(), ' ') + "  " + text;
    result.text << wrapped(line + '\n', screen.columns == 0 ? kWidth : screen.columns);
}

void addProblem(Result& result, const Screen& screen, const std::string& file,
                const ProductProblem& problem) {
    result.text << file << ":";
    if (problem.line > 0) result.text << problem.line << ":";
    result.text << (problem.isWarning ? " warning: " : " ")
                << (problem.key.empty() ? "" : problem.key + ": ") << problem.text << '\n';
    if (!problem.right.empty()) addIndented(result, screen, "right:", problem.right);
    if (!problem.atBoot.empty()) addIndented(result, screen, "at boot:", problem.atBoot);
    result.json["problems"].push_back({{"line", problem.line},
                                       {"key", problem.key},
                                       {"text", problem.text},
                                       {"warning", problem.isWarning},
                                       {"right", problem.right},
                                       {"at_boot", problem.atBoot}});
}

void checkFile(const Cli& cli, const CheckedFile& checked, Result& result) {
    const auto problems = checkProductFile(readInput(checked.file), checked.root);
    result.json = {{"file", checked.shown},
                   {"files_checked", !checked.root.empty()},
                   {"problems", Json::array()}};
    for (const ProductProblem& problem : problems) {
        addProblem(result, cli.console.screen, checked.shown, problem);
    }
    if (checked.root.empty()) {
        result.text << "(no board is known: the files that it names were not looked at)\n";
    }
    const auto errors = std::count_if(problems.begin(), problems.end(),
                                      [](const auto& problem) { return !problem.isWarning; });
    if (errors > 0) {
        throw Failure(kBadData, checked.shown + ": " + std::to_string(errors) +
                                    (errors == 1 ? " error" : " errors"));
    }
    result.text << checked.shown << ": good\n";
}

struct CheckArguments {
    std::string file;
};

void check(const Cli& cli, const CheckArguments& arguments, Result& result) {
    requireSameProduct(cli.options);
    const std::string& board = cli.options.boardDirectory;
    if (!arguments.file.empty()) return checkFile(cli, fileNamed(arguments.file, board), result);
    if (!board.empty()) return checkFile(cli, fileOf(board), result);
    const auto product = board::productByName(cli.options.product).value_or(board::Product::kHeron);
    const TemporaryBoard factory(product);
    CheckedFile checked = fileOf(factory.path());
    checked.shown = "product.ini of a new " + std::string(nameOf(product));
    checkFile(cli, checked, result);
}

}  // namespace

void addConfigCommands(CLI::App& app, Cli& cli) {
    CLI::App& config = addGroup(
        app, {"config", "The product configuration", "Example: quilctl config check product.ini"});
    addVerb(config, cli,
            {"show", "Print what the library reads on a board",
             "Example: quilctl --product Kestrel config show --json"},
            showConfig);
    const auto [command, arguments] =
        addVerb(config, cli,
                {"check", "Say what is wrong with a product file",
                 "Each finding has the line, the key, what would be right, and what happens at\n"
                 "boot if it stays. The firmware files that it names are looked at, too, when\n"
                 "the file lies in a board directory or --board names one.\n"
                 "Exit code 3 when something is wrong.\nExample: quilctl config check my.ini",
                 kBoardOption | kProductOption},
                check);
    command
        .add_option("FILE", arguments.file,
                    "The file (default: that of --board, else of a new board)")
        ->check(CLI::ExistingFile);
}

}  // namespace quil::tools
