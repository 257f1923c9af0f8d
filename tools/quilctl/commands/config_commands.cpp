#include <errno.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>

#include "config/config_info.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/product_file.h"
#include "tools/quilctl/session/board_session.h"

namespace quil::tools {
namespace {

constexpr char kProductFile[] = "rootfs/vendor/etc/product.ini";

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
    BoardSession session(cli.options, cli.console);
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

std::string contentOf(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) throw failureOf(kBadData, file + " cannot be read", errno);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::string lineOf(const std::string& file, const ProductProblem& problem) {
    std::string text = file + ":";
    if (problem.line > 0) text += std::to_string(problem.line) + ":";
    text += problem.isWarning ? " warning: " : " ";
    if (!problem.key.empty()) text += problem.key + ": ";
    return text + problem.text;
}

struct CheckArguments {
    std::string file;
};

void check(const Cli& cli, const CheckArguments& arguments, Result& result) {
    std::string file = arguments.file;
    if (file.empty()) {
        const std::filesystem::path directory = cli.options.boardDirectory;
        if (directory.empty()) throw Failure(kUsage, "name a file, or a board with --board");
        file = directory / kProductFile;
    }
    const auto problems = checkProductFile(contentOf(file));
    size_t errors = 0;
    result.json = {{"file", file}, {"problems", Json::array()}};
    for (const ProductProblem& problem : problems) {
        result.text << lineOf(file, problem) << '\n';
        result.json["problems"].push_back({{"line", problem.line},
                                           {"key", problem.key},
                                           {"text", problem.text},
                                           {"warning", problem.isWarning}});
        if (!problem.isWarning) ++errors;
    }
    if (errors > 0) {
        throw Failure(kBadData,
                      file + ": " + std::to_string(errors) + (errors == 1 ? " error" : " errors"));
    }
    result.text << file << ": good\n";
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
                 "Exit code 3 when something is wrong.\nExample: quilctl config check my.ini",
                 kBoardOption},
                check);
    command.add_option("FILE", arguments.file, "The file (default: that of --board)")
        ->check(CLI::ExistingFile);
}

}  // namespace quil::tools
