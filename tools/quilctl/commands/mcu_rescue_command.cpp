// Finds out what is in an MCU's flash, and mends it.
#include <algorithm>
#include <filesystem>
#include <optional>
#include <ostream>

#include "board/core/whole_file.h"
#include "board/mcu/mcu_image.h"
#include "config/config_info.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/programming/flash_report.h"
#include "tools/quilctl/programming/flash_target.h"

namespace quil::tools {
namespace {

using programmer::Bytes;
using programmer::Outcome;
using programmer::Report;
using programmer::Session;

struct RescueArguments : FlashArguments {
    std::vector<std::string> images;
    bool dryRun = false;
};

// An image that might be in the flash, and how many of its pages are.
struct Candidate {
    std::string file, version;
    Bytes image;
    size_t pages = 0, equal = 0;
    bool isWhole() const { return equal == pages; }
};

std::string versionOf(const Bytes& image, const std::string& chip) {
    const board::McuPart* part = board::partNamedIn(chip);
    if (part == nullptr || image.size() > part->flashSize()) return "";
    Bytes flash(part->flashSize(), 0xFF);
    std::copy(image.begin(), image.end(), flash.begin());
    return board::checkMcuImage(*part, flash).version;
}

void addCandidate(std::vector<Candidate>& all, const std::string& file, const std::string& chip) {
    const auto content = board::readWholeFile(file);
    if (!content || content->empty()) return;
    Bytes image(content->begin(), content->end());
    const bool isKnown = std::any_of(all.begin(), all.end(),
                                     [&image](const Candidate& one) { return one.image == image; });
    if (isKnown) return;
    std::string version = versionOf(image, chip);
    all.push_back({file, std::move(version), std::move(image)});
}

// The images that were named, the one of an interrupted session, and the shipped one.
std::vector<Candidate> candidatesFor(FlashTarget& target, const RescueArguments& arguments) {
    std::vector<Candidate> all;
    const std::string& chip = target.settings.chip;
    for (const std::string& file : arguments.images) addCandidate(all, file, chip);
    const auto interrupted = programmer::Journal(target.settings.journal).interrupted();
    if (interrupted) addCandidate(all, interrupted->image, chip);
    if (target.board() != nullptr && parseConfigInfo() == 0) {
        addCandidate(all, target.board()->board().hostPath(config_info->mcu_fw_path), chip);
    }
    return all;
}

// The first report of a session that did not come to its end.
std::optional<Report> compare(FlashTarget& target, Candidate& candidate) {
    std::vector<bool> holds;
    Report report =
        target.run([&](Session& session) { return session.compare(candidate.image, holds); });
    if (report.outcome != Outcome::kDone) return report;
    candidate.pages = holds.size();
    candidate.equal = static_cast<size_t>(std::count(holds.begin(), holds.end(), true));
    return std::nullopt;
}

Report readFlash(FlashTarget& target, Bytes& flash, size_t end) {
    Bytes bytes;
    Report report = target.run(
        [&](Session& session) { return session.read(programmer::kFlashBase, end, bytes); });
    std::copy(bytes.begin(), bytes.end(), flash.begin());
    return report;
}

// The application's version, or why none starts: of the image's head, and of as much as that says.
// Nothing where the flash cannot be read.
using Found = std::optional<board::McuImageCheck>;
Found foundIn(FlashTarget& target) {
    const board::McuPart* part = board::partNamedIn(target.settings.chip);
    if (part == nullptr) return std::nullopt;
    Bytes flash(part->flashSize(), 0xFF);
    size_t end = board::kMcuImageLeast;
    if (readFlash(target, flash, end).outcome != Outcome::kDone) return std::nullopt;
    end = std::min<size_t>(board::mcuImageLength(flash), flash.size());
    if (end > 0 && readFlash(target, flash, end).outcome != Outcome::kDone) return std::nullopt;
    return board::checkMcuImage(*part, flash);
}

Json listOf(const std::vector<Candidate>& candidates) {
    Json all = Json::array();
    for (const Candidate& one : candidates) {
        all.push_back({{"image", one.file},
                       {"version", one.version},
                       {"pages", one.pages},
                       {"equal", one.equal}});
    }
    return all;
}

std::string textOf(const Candidate& one) {
    const std::string version = one.version.empty() ? "" : " (" + one.version + ")";
    return one.file + version + ": " + std::to_string(one.equal) + " of " +
           std::to_string(one.pages) + " pages are in the flash\n";
}

bool isBlank(FlashTarget& target) {
    std::vector<bool> holds;
    const Bytes blank(256, 0xFF);
    target.run([&](Session& session) { return session.compare(blank, holds); });
    return holds.size() == 1 && holds[0];
}

void addFound(Result& result, const Found& found) {
    if (!found) return;
    result.json["found"] = {{"version", found->version}, {"problem", found->problem}};
    result.text << "in the flash: "
                << (found->problem.empty() ? found->version : "no application, " + found->problem)
                << '\n';
}

bool startsNothing(FlashTarget& target, const Found& found) {
    return found ? !found->problem.empty() : isBlank(target);
}

// The one to mend the flash with: most of it is there. An image of which nothing is there is taken
// only where no application could start.
const Candidate& chosenOf(FlashTarget& target, const std::vector<Candidate>& candidates,
                          const Found& found) {
    const auto best = std::max_element(candidates.begin(), candidates.end(),
                                       [](const Candidate& a, const Candidate& b) {
                                           return a.equal * b.pages < b.equal * a.pages;
                                       });
    if (best->equal > 0) return *best;
    if (startsNothing(target, found)) return candidates.front();
    throw Failure(kRefused, "mcu rescue: the flash holds an application that is none of these",
                  "quilctl mcu flash IMAGE replaces it");
}

void rescue(const Cli& cli, const RescueArguments& arguments, Result& result) {
    FlashTarget target(cli, arguments);
    const Report seen = target.run([](Session& session) { return session.info(); });
    if (seen.outcome != Outcome::kDone) return addReport(result, seen, "mcu rescue");
    target.settings.chip = seen.part->name;
    auto candidates = candidatesFor(target, arguments);
    for (Candidate& one : candidates) {
        const auto failed = compare(target, one);
        if (failed) return addReport(result, *failed, "mcu rescue");
        result.text << textOf(one);
    }
    const bool isOneOfThem = std::any_of(candidates.begin(), candidates.end(),
                                         [](const Candidate& one) { return one.isWhole(); });
    const Found found = isOneOfThem ? std::nullopt : foundIn(target);
    addFound(result, found);
    if (candidates.empty()) throw Failure(kUsage, "mcu rescue: name an IMAGE to compare with");
    result.json["candidates"] = listOf(candidates);
    const Candidate& chosen = chosenOf(target, candidates, found);
    result.json["chosen"] = chosen.file;
    if (!chosen.isWhole()) {
        result.text << "missing: " << chosen.pages - chosen.equal << " pages of " << chosen.file
                    << '\n';
    }
    target.settings.dryRun = arguments.dryRun;
    target.settings.asIs = true;  // what was there before is put there again
    target.settings.imageName = chosen.file;
    const Report report = target.run([&](Session& session) { return session.flash(chosen.image); });
    addReport(result, report, "mcu rescue");
}

}  // namespace

void addMcuRescueCommand(CLI::App& mcu, Cli& cli) {
    const auto [command, arguments] = addVerb(
        mcu, cli,
        {"rescue", "Find out what is in the flash, and mend it",
         "Compares the flash with the images that are named, with that of an interrupted session\n"
         "and with the shipped one, and writes what is missing of the one it is.\n"
         "Example: quilctl --board my-board mcu rescue image.bin",
         kFlashBoardOptions},
        rescue);
    command.add_option("IMAGE", arguments.images, "Images that may be in the flash")
        ->check(CLI::ExistingFile);
    addFlashOptions(command, arguments);
    command.add_flag("--dry-run", arguments.dryRun, "Only say what is there");
}

}  // namespace quil::tools
