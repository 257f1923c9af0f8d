#include <quil_hal.h>
#include <stdio.h>

#include <filesystem>
#include <ostream>
#include <stdexcept>

#include "config/config_info.h"
#include "fpga/flash_update.h"
#include "fpga/spi_link.h"
#include "host/fpga_load.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/output/values.h"
#include "tools/quilctl/session/boot_stages.h"
#include "tools/quilctl/session/bring_up_faults.h"

namespace quil::tools {
namespace {

namespace fs = std::filesystem;

void parseProduct() {
    if (parseConfigInfo() != 0) throw std::runtime_error("the product cannot be identified");
}

// What the FPGA and the PHY say of themselves, asked as the bring-up asks them.
struct FpgaStatus {
    std::string done, ddr, clock, negotiation, link, version;
};

std::string stateText(int result, uint8_t state, const char* ready) {
    if (result < 0) return "no answer";
    return state == 1 ? ready : "not ready (" + std::to_string(state) + ")";
}

FpgaStatus askStatus(board::Board& board) {
    FpgaStatus status;
    uint8_t state = 0;
    const int done = hal_gpio_getvalue(config_info->fpga_done_gpio);
    status.done = done < 0 ? "no answer" : done == 1 ? "high" : "low";
    const int ddr = readFpgaDdrState(&state);
    status.ddr = stateText(ddr, state, "good");
    const int clock = readFpgaSgmiiClockState(&state, 1);
    status.clock = stateText(clock, state, "present");
    const int negotiation = readFpgaSgmiiNegotiationState(&state, 1);
    status.negotiation = stateText(negotiation, state, "complete");
    const int link = readRtl8211fsPhyLink();
    status.link = link < 0 ? "no answer" : link == 1 ? "up" : "down";
    status.version = board.fpga().isConfigured() ? board.fpga().version() : "none";
    return status;
}

Json statusDocument(const FpgaStatus& status) {
    return {{"done", status.done},
            {"image", status.version},
            {"ddr", status.ddr},
            {"sgmii_clock", status.clock},
            {"sgmii_negotiation", status.negotiation},
            {"link", status.link}};
}

void addStatus(Result& result, const FpgaStatus& status) {
    result.text << "DONE               " << status.done << "\nimage              " << status.version
                << "\nDDR                " << status.ddr << "\nSGMII clock        " << status.clock
                << "\nSGMII negotiation  " << status.negotiation << "\nPHY link           "
                << status.link << '\n';
    result.json["status"] = statusDocument(status);
}

void showStatus(const Cli& cli, Result& result) {
    BoardSession session(cli.options, cli.console);
    parseProduct();
    const FpgaStatus status = askStatus(session.board());
    addStatus(result, status);
    if (status.done != "high") {
        throw Failure(kFailed, "the FPGA's DONE is not high: no image runs",
                      "quilctl fpga load runs the load sequence, quilctl boot --update-fpga writes "
                      "the configured image first");
    }
}

struct LoadArguments {
    std::vector<std::string> faults;
};

void load(const Cli& cli, const LoadArguments& arguments, Result& result) {
    BoardSession session(cli.options, cli.console, false);
    const BringUpFaults faults(session.board(), arguments.faults, isUpdateAsked(session.board()),
                               cli.console.err);
    BootStages stages(session, cli.console, result);
    parseProduct();
    stages.end("configuration", true, config_info->product);
    const host::FpgaLoad loaded = host::loadFpga();
    if (loaded == host::FpgaLoad::kNoSequence) stages.end("FPGA", false, "no load sequence");
    result.json["loaded"] = loaded == host::FpgaLoad::kUp;
    addStatus(result, askStatus(session.board()));
    throwUnlessAllOk(stages.all());
    if (loaded != host::FpgaLoad::kUp) {
        throw Failure(kFailed, "the load sequence failed", "quilctl boot has its stages");
    }
}

// An image of the workstation, on the board for as long as this lives, in place of the configured
// one.
class LentImage {
  public:
    LentImage(board::Board& board, const std::string& file)
        : mOnHost(board.hostPath(kPath)), mFormer(config_info->fpga_fw_path) {
        std::error_code error;
        fs::copy_file(file, mOnHost, fs::copy_options::overwrite_existing, error);
        if (error)
            throw failureOf(kNoBoard, file + " cannot be copied to the board", error.value());
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

// Steps of the update, as the board sees them go on.
void showSteps(board::Board& board, Reporter& report) {
    board.trace().onEvent([&report](const board::Event& event) {
        const bool isStep = event.kind == board::EventKind::kFlash ||
                            (event.kind == board::EventKind::kNote && event.source == "fpga");
        if (!isStep) return;
        char stamp[32];
        snprintf(stamp, sizeof(stamp), "%10.3f s  ", secondsOf(event.at));
        report.tell("step", stamp + event.source + ": " + event.text,
                    {{"at", secondsOf(event.at)}, {"step", event.source}, {"said", event.text}});
    });
}

struct FlashRun {
    bool isDone;
    uintmax_t bytes;
    double seconds;
    std::string problem;  // of the FPGA's configuration
    FpgaStatus status;
};

FlashRun runFlash(board::Board& board, const std::string& file) {
    const LentImage image(board, file);
    const auto start = board.now();
    const bool isDone = fpgaFwUpdate() == 0;
    const std::chrono::duration<double> took = board.now() - start;
    return {isDone, fs::file_size(file), took.count(), board.fpga().problem(), askStatus(board)};
}

void addRun(Result& result, const Screen& screen, const FlashRun& run) {
    char line[96];
    snprintf(line, sizeof(line), "%ju bytes in %.3f s of board time: ", run.bytes, run.seconds);
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

struct FlashArguments {
    std::string file;
};

void flash(const Cli& cli, const FlashArguments& arguments, Result& result) {
    BoardSession session(cli.options, cli.console);
    parseProduct();
    showSteps(session.board(), cli.console.report);
    const FlashRun run = runFlash(session.board(), arguments.file);
    addRun(result, cli.console.screen, run);
    if (run.isDone) return;
    const std::string reason = run.problem.empty() ? session.lastError() : run.problem;
    throw Failure(kFailed, arguments.file + " was not written: " + reason,
                  "the flash does not hold an image that runs: write a good one with quilctl fpga "
                  "flash FILE, or the configured one with quilctl boot --update-fpga");
}

void addLoad(CLI::App& fpga, Cli& cli) {
    const auto [command, arguments] = addVerb(fpga, cli,
                                              {"load", "Run the product's load sequence",
                                               "Exit code 1 when a stage failed.\n"
                                               "Example: quilctl --board my-board fpga load\n"
                                               "         quilctl fpga load --fault ddr,link"},
                                              load);
    addFaultOption(command, arguments.faults);
}

void addFlash(CLI::App& fpga, Cli& cli) {
    const auto [command, arguments] =
        addVerb(fpga, cli,
                {"flash", "Write an image and restart the FPGA",
                 "Erases the flash, writes the image, restarts the FPGA and waits for DONE.\n"
                 "Example: quilctl --board my-board fpga flash fpga.bin"},
                flash);
    command.add_option("FILE", arguments.file, "The image")->required()->check(CLI::ExistingFile);
}

}  // namespace

void addFpgaCommands(CLI::App& app, Cli& cli) {
    CLI::App& fpga = addGroup(app, {"fpga", "The FPGA: its image, its state, its bring-up",
                                    "Example: quilctl --board my-board fpga load"});
    addVerb(fpga, cli,
            {"status", "Ask for DONE, DDR, SGMII and the PHY's link",
             "Exit code 1 when the FPGA runs no image.\n"
             "Example: quilctl --board my-board fpga status"},
            showStatus);
    addLoad(fpga, cli);
    addFlash(fpga, cli);
}

}  // namespace quil::tools
