// Erasing and protecting the MCU's flash.
#include <ostream>

#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/validators.h"
#include "tools/quilctl/programming/flash_report.h"
#include "tools/quilctl/programming/flash_target.h"

namespace quil::tools {
namespace {

using programmer::Report;
using programmer::Session;

constexpr uint32_t kMostPage = 4095;

// "0,3-5"; nothing for anything else.
std::optional<std::vector<uint32_t>> parsePages(const std::string& text) {
    std::vector<uint32_t> pages;
    std::istringstream parts(text);
    for (std::string part; std::getline(parts, part, ',');) {
        const size_t dash = part.find('-');
        const auto first = parseNumber(part.substr(0, dash), kMostPage);
        const auto last =
            dash == std::string::npos ? first : parseNumber(part.substr(dash + 1), kMostPage);
        if (!first || !last || *first > *last) return std::nullopt;
        for (uint64_t page = *first; page <= *last; ++page) {
            pages.push_back(static_cast<uint32_t>(page));
        }
    }
    if (pages.empty()) return std::nullopt;
    return pages;
}

CLI::Validator pageList() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            if (parsePages(text)) return {};
            return "'" + text + "' is no list of pages: 0,3-5";
        },
        "PAGES");
}

struct CareArguments : FlashArguments {
    std::string pages;
    bool all = false, readout = false;
};

// Nothing is erased or protected by default.
void requireOne(const CareArguments& arguments, const char* names) {
    const int given =
        (arguments.pages.empty() ? 0 : 1) + (arguments.all ? 1 : 0) + (arguments.readout ? 1 : 0);
    if (given != 1) throw Failure(kUsage, std::string("name one of ") + names);
}

void erase(const Cli& cli, const CareArguments& arguments, Result& result) {
    requireOne(arguments, "--pages, --all");
    FlashTarget target(cli, arguments);
    const Report report = target.run([&](Session& session) {
        return arguments.all ? session.eraseEverything()
                             : session.erase(*parsePages(arguments.pages));
    });
    addReport(result, report, "mcu erase");
}

void protect(const Cli& cli, const CareArguments& arguments, Result& result) {
    requireOne(arguments, "--sectors, --readout");
    std::vector<uint8_t> sectors;
    const auto named = parsePages(arguments.pages).value_or(std::vector<uint32_t>{});
    for (const uint32_t sector : named) {
        if (sector > UINT8_MAX) throw Failure(kUsage, "--sectors: the command takes 0 to 255");
        sectors.push_back(static_cast<uint8_t>(sector));
    }
    FlashTarget target(cli, arguments);
    const Report report = target.run([&](Session& session) {
        return arguments.readout ? session.protectReadout() : session.protectPages(sectors);
    });
    addReport(result, report, "mcu protect");
}

void unprotect(const Cli& cli, const CareArguments& arguments, Result& result) {
    requireOne(arguments, "--write, --readout");
    FlashTarget target(cli, arguments);
    const Report report = target.run([&](Session& session) {
        return arguments.readout ? session.unprotectReadout() : session.unprotectPages();
    });
    addReport(result, report, "mcu unprotect");
}

void addErase(CLI::App& mcu, Cli& cli) {
    const auto [command, arguments] =
        addVerb(mcu, cli,
                {"erase", "Erase pages of the flash, or all of it",
                 "An application whose pages are gone does not start.\n"
                 "Examples: quilctl --board my-board mcu erase --pages 0,3-5\n"
                 "          quilctl --board my-board mcu erase --all",
                 kFlashBoardOptions},
                erase);
    command.add_option("--pages", arguments.pages, "These pages: 0,3-5")->check(pageList());
    command.add_flag("--all", arguments.all, "The whole flash");
    addFlashOptions(command, arguments);
}

void addProtect(CLI::App& mcu, Cli& cli) {
    const auto [command, arguments] =
        addVerb(mcu, cli,
                {"protect", "Protect the flash against reading, or sectors of it against writing",
                 "Not on an N32, whose boot loader has no command for it.\n"
                 "Example: quilctl --board my-board mcu protect --sectors 0-3",
                 kFlashBoardOptions},
                protect);
    command
        .add_option("--sectors", arguments.pages,
                    "These sectors against writing: 0,3-5 (of two pages each on a gd32f303)")
        ->check(pageList());
    command.add_flag("--readout", arguments.readout, "All against reading");
    addFlashOptions(command, arguments);
}

void addUnprotect(CLI::App& mcu, Cli& cli) {
    const auto [command, arguments] =
        addVerb(mcu, cli,
                {"unprotect", "Lift a protection of the flash",
                 "Lifting read-out protection erases the whole flash: that is what the part does.\n"
                 "Example: quilctl --board my-board mcu unprotect --write",
                 kFlashBoardOptions},
                unprotect);
    command.add_flag("--write", arguments.all, "The write protection of all sectors");
    command.add_flag("--readout", arguments.readout,
                     "The read-out protection, and with it the contents");
    addFlashOptions(command, arguments);
}

}  // namespace

void addMcuCareCommands(CLI::App& mcu, Cli& cli) {
    addErase(mcu, cli);
    addProtect(mcu, cli);
    addUnprotect(mcu, cli);
}

}  // namespace quil::tools
