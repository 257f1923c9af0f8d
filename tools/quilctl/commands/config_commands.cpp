#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>

#include "config/config_info.h"
#include "tools/quilctl/files/product_file.h"
#include "tools/quilctl/files/validators.h"
#include "tools/quilctl/session/board_session.h"

namespace quil::tools {
namespace {

constexpr char kProductFile[] = "rootfs/vendor/etc/product.ini";

const char* fieldOf(const ProductKey& key) {
    return reinterpret_cast<const char*>(config_info) + key.offset;
}

int32_t integerField(const ProductKey& key) {
    int32_t value = 0;
    std::memcpy(&value, fieldOf(key), sizeof value);
    return value;
}

void printText(std::ostream& out) {
    char line[192];
    for (const ProductKey& key : productKeys()) {
        if (isString(key.kind)) {
            std::snprintf(line, sizeof line, "%-9s %-21s %s\n", key.section, key.key, fieldOf(key));
        } else {
            std::snprintf(line, sizeof line, "%-9s %-21s %d\n", key.section, key.key,
                          integerField(key));
        }
        out << line;
    }
    std::snprintf(line, sizeof line, "%-9s %-21s %d\n", "-", "mod_id", config_info->mod_id);
    out << line;
}

void printJson(std::ostream& out) {
    nlohmann::json all{{"mod_id", config_info->mod_id}};
    for (const ProductKey& key : productKeys()) {
        if (isString(key.kind)) {
            all[key.section][key.key] = fieldOf(key);
        } else {
            all[key.section][key.key] = integerField(key);
        }
    }
    out << all.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

int showConfig(const Cli& cli) {
    BoardSession session(cli.options, cli.console);
    if (parseConfigInfo() != 0) {
        cli.console.err << "the product configuration could not be read\n";
        return kBadData;
    }
    if (cli.options.json) {
        printJson(cli.console.out);
    } else {
        printText(cli.console.out);
    }
    return kOk;
}

std::optional<std::string> contentOf(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in || std::filesystem::is_directory(file)) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void printProblem(std::ostream& out, const std::string& file, const ProductProblem& problem) {
    out << file << ':';
    if (problem.line > 0) out << problem.line << ':';
    out << ' ' << (problem.isWarning ? "warning: " : "");
    if (!problem.key.empty()) out << problem.key << ": ";
    out << problem.text << '\n';
}

int check(const Cli& cli, const std::string& given) {
    const std::string file =
        given.empty() ? (std::filesystem::path(cli.options.boardDirectory) / kProductFile).string()
                      : given;
    if (given.empty() && cli.options.boardDirectory.empty()) {
        cli.console.err << "name a file, or a board with --board\n";
        return kUsage;
    }
    const auto content = contentOf(file);
    if (!content) {
        cli.console.err << file << ": cannot be read\n";
        return kBadData;
    }
    const auto problems = checkProductFile(*content);
    for (const ProductProblem& problem : problems) printProblem(cli.console.out, file, problem);
    const bool isGood = std::all_of(problems.begin(), problems.end(),
                                    [](const ProductProblem& p) { return p.isWarning; });
    if (isGood) cli.console.out << file << ": good\n";
    return isGood ? kOk : kBadData;
}

}  // namespace

void addConfigCommands(CLI::App& app, Cli& cli) {
    CLI::App* config = app.add_subcommand("config", "The product configuration");
    config->require_subcommand(1);
    config->fallthrough();
    config->footer("Example: quilctl config check product.ini");

    CLI::App* showing = config->add_subcommand("show", "Print what the library reads on a board");
    showing->footer("Example: quilctl --product Kestrel config show --json");
    showing->callback([&cli] { cli.action = [&cli] { return showConfig(cli); }; });

    auto file = std::make_shared<std::string>();
    CLI::App* checking = config->add_subcommand("check", "Say what is wrong with a product file");
    checking->add_option("FILE", *file, "The file (default: that of the board)");
    checking->footer("Exit code 3 when something is wrong.\nExample: quilctl config check my.ini");
    checking->callback([&cli, file] { cli.action = [&cli, file] { return check(cli, *file); }; });
}

}  // namespace quil::tools
