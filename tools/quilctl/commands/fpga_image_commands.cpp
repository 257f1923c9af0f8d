// FPGA images: what a file holds, and writing one into the flash.
#include <stdio.h>

#include <filesystem>
#include <memory>
#include <string_view>

#include "config/config_info.h"
#include "fpga/flash_update.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/fpga_file.h"
#include "tools/quilctl/files/input_file.h"
#include "tools/quilctl/output/reporter.h"
#include "tools/quilctl/output/values.h"
#include "tools/quilctl/session/fpga_status.h"

namespace quil::tools {
namespace {

namespace fs = std::filesystem;

// An image of the workstation, on the board for as long as this lives, in place of the configured
// one.
class LentImage {
  public:
    LentImage(board::Board& board, const std::string& content)
        : mOnHost(board.hostPath(kPath)), mFormer(config_info->fpga_fw_path) {
        board.writeFile(kPath, content);
        setPath(kPath);
    }
    ~LentImage() {
        std::error_code ignored;
        fs::remove(mOnHost, ignored);
        setPath(mFormer);
    }
    LentImage(const LentImage&) = delete;
    LentImage& operator=(const LentImage&) = delete;

  private:
    static constexpr char kPath[] = "/vendor/firmware/quilctl_fpga.bin";
    static void setPath(const std::string& path) {
        const size_t length =
            path.copy(config_info->fpga_fw_path, sizeof(config_info->fpga_fw_path) - 1);
        config_info->fpga_fw_path[length] = '\0';
    }

    const fs::path mOnHost;
    const std::string mFormer;
};

// What goes wrong in a run, in the words of the part or the tool that it happened to.
struct Wrongs {
    std::string tool;       // what the flash tool printed on its error stream
    std::string fpga;       // why the FPGA did not take its configuration
    bool isErased = false;  // the former image is gone
};

// Shows the steps of the update as the board sees them go on, and keeps what goes wrong.
std::shared_ptr<const Wrongs> watchSteps(board::Board& board, Reporter& report) {
    constexpr std::string_view kRefused = "configuration failed: ";
    auto wrongs = std::make_shared<Wrongs>();
    board.trace().onEvent([&report, wrongs, kRefused](const board::Event& event) {
        const bool isNote = event.kind == board::EventKind::kNote;
        if (isNote && event.source == "sh") {
            wrongs->tool = event.text.substr(0, event.text.find('\n'));
        }
        if (event.kind != board::EventKind::kFlash && !(isNote && event.source == "fpga")) return;
        if (event.text.rfind("erase ", 0) == 0) wrongs->isErased = true;
        if (event.text.rfind(kRefused, 0) == 0) wrongs->fpga = event.text.substr(kRefused.size());
        char stamp[32];
        snprintf(stamp, sizeof(stamp), "%10.3f s  ", secondsOf(event.at));
        report.tell("step", stamp + event.source + ": " + event.text,
                    {{"at", secondsOf(event.at)}, {"step", event.source}, {"said", event.text}});
    });
    return wrongs;
}

struct FlashRun {
    bool isDone;
    bool isErased;
    size_t bytes;
    double seconds;
    std::string problem;
    FpgaStatus status;
};

FlashRun runFlash(BoardSession& session, const std::string& content, Reporter& report) {
    board::Board& board = session.board();
    const LentImage image(board, content);
    const auto wrongs = watchSteps(board, report);
    const auto start = board.now();
    const bool isDone = fpgaFwUpdate() == 0;
    const double took = secondsOf(board.now() - start);
    std::string problem;
    if (!isDone) {
        problem = !wrongs->tool.empty()   ? wrongs->tool
                  : !wrongs->fpga.empty() ? wrongs->fpga
                                          : session.lastError();
    }
    return {isDone, wrongs->isErased, content.size(), took, problem, askStatus(board)};
}

void addRun(Result& result, const Screen& screen, const FlashRun& run) {
    char line[96];
    snprintf(line, sizeof(line), "%zu bytes in %.3f s of board time: ", run.bytes, run.seconds);
    result.text << line << (run.isDone ? "ok" : styled(screen, Style::kBad, "FAILED"));
    if (!run.problem.empty()) result.text << " (" << run.problem << ")";
    result.text << "\nDONE               " << run.status.done << "\nimage              "
                << run.status.version << '\n';
    result.json = {{"done", run.isDone},
                   {"bytes", run.bytes},
                   {"took", run.seconds},
                   {"problem", run.problem},
                   {"status", statusDocument(run.status)}};
}

struct FpgaFlashArguments {
    std::string file;
    bool asIs = false;
};

void flash(const Cli& cli, const FpgaFlashArguments& arguments, Result& result) {
    const std::string content = readInput(arguments.file);
    BoardSession session(cli.options, cli.console);
    parseProduct();
    const std::string obstacle = obstacleToFlash(checkFpgaFile(content), config_info->product);
    if (!obstacle.empty() && !arguments.asIs) {
        throw Failure(kBadData, arguments.file + " was not written, nothing was erased: " +
                                    obstacle + " (--as-is writes it all the same)");
    }
    const FlashRun run = runFlash(session, content, cli.console.report);
    addRun(result, cli.console.screen, run);
    if (run.isDone) return;
    throw Failure(kFailed, arguments.file + " does not run: " + run.problem,
                  run.isErased ? "the former image is gone: write a good one with quilctl fpga "
                                 "flash FILE, or the configured one with quilctl boot --update-fpga"
                               : "the former image is still there");
}

void addFlash(CLI::App& fpga, Cli& cli) {
    const auto [command, arguments] =
        addVerb(fpga, cli,
                {"flash", "Write an image and restart the FPGA",
                 "Checks the image, erases the flash, writes the image, restarts the FPGA and\n"
                 "waits for DONE. Exit code 3, with nothing erased, for an image that does not\n"
                 "fit or that the FPGA would refuse.\n"
                 "Example: quilctl --board my-board fpga flash fpga.bin"},
                flash);
    command.add_option("FILE", arguments.file, "The image")->required()->check(CLI::ExistingFile);
    command.add_flag("--as-is", arguments.asIs,
                     "Write what would be refused, as the board's own update does");
}

void addFit(Result& result, const FpgaFile& file, const FpgaPlace& place) {
    const std::string name(board::nameOf(place.product));
    const std::string obstacle = obstacleFor(file, place);
    char column[32];
    snprintf(column, sizeof(column), "%-10s ", name.c_str());
    result.text << column << (obstacle.empty() ? "fits" : "does not fit") << ": "
                << (obstacle.empty() ? place.place : obstacle) << '\n';
    result.json["fits"].push_back(
        {{"product", name}, {"fits", obstacle.empty()}, {"why", obstacle}});
}

struct InfoArguments {
    std::string file;
};

void info(const Cli& /*cli*/, const InfoArguments& arguments, Result& result) {
    const FpgaFile file = checkFpgaFile(readInput(arguments.file));
    const auto& image = file.image;
    const bool hasHeader = image.size != 0;
    result.json = {{"size", file.size},        {"header", hasHeader},
                   {"version", image.version}, {"image_size", image.size},
                   {"problem", image.problem}, {"fits", Json::array()}};
    result.text << "file       " << file.size << " bytes\n";
    if (hasHeader) {
        result.text << "version    " << image.version << "\nimage      " << image.size
                    << " bytes\n";
    }
    result.text << "check      " << (image.problem.empty() ? "good" : image.problem) << '\n';
    for (const FpgaPlace& place : fpgaPlaces()) addFit(result, file, place);
    if (!image.problem.empty()) throw Failure(kBadData, arguments.file + ": " + image.problem);
}

void addInfo(CLI::App& fpga, Cli& cli) {
    const auto [command, arguments] =
        addVerb(fpga, cli,
                {"info", "Say what an image file holds, and which products have room for it",
                 "Exit code 3 when it is no good image.\n"
                 "Example: quilctl fpga info my-board/rootfs/vendor/firmware/fpga_Heron.bin",
                 kNoBoardOption},
                info);
    command.add_option("FILE", arguments.file, "The image")->required()->check(CLI::ExistingFile);
}

}  // namespace

void addFpgaImageCommands(CLI::App& fpga, Cli& cli) {
    addInfo(fpga, cli);
    addFlash(fpga, cli);
}

}  // namespace quil::tools
