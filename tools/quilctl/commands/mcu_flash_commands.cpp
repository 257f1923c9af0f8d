// The MCU's flash by way of the tools' own programmer: checked, verified, safe to interrupt. What
// the board itself does is `mcu program` and `mcu update`.
#include <stdio.h>

#include <ostream>

#include "board/core/whole_file.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/input_file.h"
#include "tools/quilctl/files/validators.h"
#include "tools/quilctl/programming/flash_report.h"
#include "tools/quilctl/programming/flash_target.h"

namespace quil::tools {
namespace {

using programmer::Bytes;
using programmer::Outcome;
using programmer::Report;
using programmer::Session;

Bytes imageIn(const std::string& file) {
    const std::string content = readInput(file);
    return {content.begin(), content.end()};
}

struct ImageArguments : FlashArguments {
    std::string image;
    bool dryRun = false, asIs = false, lift = false;
};

std::string planText(const Report& report) {
    const auto& plan = report.plan;
    if (plan.pages.empty()) return "";
    char text[128];
    snprintf(text, sizeof(text),
             "to do: erase and write %zu of %zu pages, %zu bytes, about %.1f s\n",
             plan.pages.size(), plan.pagesOfImage, plan.bytes, secondsOf(plan.time));
    std::string pages = "pages:";
    for (const auto& page : plan.pages) pages += " " + std::to_string(page.number);
    return text + pages + "\n";
}

void addPlan(Result& result, const Report& report) {
    result.text << planText(report);
    Json pages = Json::array();
    for (const auto& page : report.plan.pages) pages.push_back(page.number);
    result.json["plan"] = {
        {"pages", pages}, {"bytes", report.plan.bytes}, {"seconds", secondsOf(report.plan.time)}};
}

void flashImage(const Cli& cli, const ImageArguments& arguments, Result& result) {
    const Bytes image = imageIn(arguments.image);
    FlashTarget target(cli, arguments);
    target.settings.dryRun = arguments.dryRun;
    target.settings.asIs = arguments.asIs;
    target.settings.liftReadoutProtection = arguments.lift;
    target.settings.imageName = std::filesystem::absolute(arguments.image).string();
    const Report report = target.run([&](Session& session) { return session.flash(image); });
    result.json["bytes"] = image.size();
    if (arguments.dryRun) addPlan(result, report);
    addReport(result, report, "mcu flash");
    if (target.board() == nullptr || arguments.dryRun) return;
    target.board()->board().runFor(kMcuStart);
    const std::string runs = target.board()->board().mcuChip().version();
    result.json["runs"] = runs;
    result.text << "runs  " << (runs.empty() ? "nothing" : runs) << '\n';
}

void verify(const Cli& cli, const ImageArguments& arguments, Result& result) {
    const Bytes image = imageIn(arguments.image);
    FlashTarget target(cli, arguments);
    Report report = target.run([&](Session& session) { return session.verify(image); });
    result.json["bytes"] = image.size();
    if (report.outcome == Outcome::kDiffers) {
        report.reason = std::to_string(report.plan.pages.size()) + " of " +
                        std::to_string(report.plan.pagesOfImage) + " pages, the first at " +
                        hex32(report.plan.pages.front().address);
        report.remedy = "quilctl mcu flash IMAGE writes what differs";
    }
    addReport(result, report, "mcu verify");
}

struct ReadArguments : FlashArguments {
    std::string file;
    std::string address = hex32(programmer::kFlashBase), size = "0";
};

void read(const Cli& cli, const ReadArguments& arguments, Result& result) {
    requireWritable(arguments.file, arguments.file);
    FlashTarget target(cli, arguments);
    const auto address = static_cast<uint32_t>(*parseNumber(arguments.address, UINT32_MAX));
    const auto size = static_cast<size_t>(*parseNumber(arguments.size, UINT32_MAX));
    Bytes bytes;
    const Report report =
        target.run([&](Session& session) { return session.read(address, size, bytes); });
    result.json["file"] = arguments.file;
    result.json["bytes"] = report.outcome == Outcome::kDone ? bytes.size() : 0;
    addReport(result, report, "mcu read");
    try {
        board::writeWholeFile(arguments.file, std::string(bytes.begin(), bytes.end()));
    } catch (const std::runtime_error& error) {
        throw Failure(kNotWritten, error.what());
    }
    result.text << bytes.size() << " bytes from " << hex32(address) << " on in " << arguments.file
                << '\n';
}

void partInfo(const Cli& cli, const ImageArguments& arguments, Result& result) {
    Bytes image;
    if (!arguments.image.empty()) image = imageIn(arguments.image);
    FlashTarget target(cli, arguments);
    Report report = target.run([&](Session& session) { return session.info(image); });
    if (report.part != nullptr) {
        result.json["flash_size"] = report.part->flashSize();
        result.json["flash_pages"] = report.part->pageCount();
        result.text << "flash " << report.part->flashSize() << " bytes in "
                    << report.part->pageCount() << " pages, times from: " << report.part->source
                    << "\nread-out protection " << (report.readoutProtected ? "on" : "off") << '\n';
    }
    if (!image.empty()) addPlan(result, report);
    // That an image differs is what was asked, and no failure.
    if (report.outcome == Outcome::kDiffers) report.outcome = Outcome::kDone;
    addReport(result, report, "mcu info");
}

void addImage(CLI::App& command, ImageArguments& arguments) {
    command.add_option("IMAGE", arguments.image, "The bytes of the flash from 0x08000000 on")
        ->required()
        ->check(CLI::ExistingFile);
}

void addFlashImage(CLI::App& mcu, Cli& cli) {
    const auto [command, arguments] =
        addVerb(mcu, cli,
                {"flash", "Bring an image into the flash: checked, verified, safe to interrupt",
                 "Checks part and image, compares page by page, erases and writes what differs,\n"
                 "the vector table last, and verifies. After an interruption the same command\n"
                 "goes on.\n" +
                     std::string(kPortHelp) +
                     "Examples: quilctl --board my-board mcu flash image.bin\n"
                     "          quilctl mcu flash --chip stm32h750 --port /dev/ttyUSB0 \\\n"
                     "            --boot0 -rts --nrst -dtr image.bin",
                 kFlashBoardOptions},
                flashImage);
    addImage(command, arguments);
    addFlashOptions(command, arguments);
    command.add_flag("--dry-run", arguments.dryRun, "Compare, and say what would be done");
    command.add_flag("--as-is", arguments.asIs, "Also an image that the part never starts");
    command.add_flag("--lift-protection", arguments.lift,
                     "Lift read-out protection, which erases the whole flash");
}

void addVerify(CLI::App& mcu, Cli& cli) {
    const auto [command, arguments] =
        addVerb(mcu, cli,
                {"verify", "Compare the flash with an image",
                 "By read-back; on an N32 by the CRC command of its boot loader.\n"
                 "Exit code 1 when they differ.\n"
                 "Example: quilctl --board my-board mcu verify image.bin",
                 kFlashBoardOptions},
                verify);
    addImage(command, arguments);
    addFlashOptions(command, arguments);
}

void addRead(CLI::App& mcu, Cli& cli) {
    const auto [command, arguments] = addVerb(mcu, cli,
                                              {"read", "Read the flash into a file",
                                               "Not on an N32, whose boot loader cannot.\n"
                                               "Example: quilctl mcu read --size 8192 flash.bin",
                                               kFlashBoardOptions},
                                              read);
    command.add_option("FILE", arguments.file, "The file to write")
        ->required()
        ->check(outputFile());
    command.add_option("--address", arguments.address, "The first byte (default: 0x08000000)")
        ->check(numberUpTo(UINT32_MAX));
    command.add_option("--size", arguments.size, "Bytes (default: to the end of the flash)")
        ->check(numberUpTo(UINT32_MAX));
    addFlashOptions(command, arguments);
}

void addPartInfo(CLI::App& mcu, Cli& cli) {
    const auto [command, arguments] =
        addVerb(mcu, cli,
                {"info", "Identify the part; with an image also what flashing it would do",
                 "Example: quilctl mcu info", kFlashBoardOptions},
                partInfo);
    command.add_option("IMAGE", arguments.image, "An image to check and compare")
        ->check(CLI::ExistingFile);
    addFlashOptions(command, arguments);
}

}  // namespace

void addMcuFlashCommands(CLI::App& mcu, Cli& cli) {
    addFlashImage(mcu, cli);
    addVerify(mcu, cli);
    addRead(mcu, cli);
    addPartInfo(mcu, cli);
}

}  // namespace quil::tools
