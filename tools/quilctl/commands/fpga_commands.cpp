#include <quil_hal.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <stdexcept>

#include "config/config_info.h"
#include "fpga/flash_update.h"
#include "fpga/spi_link.h"
#include "host/fpga_load.h"
#include "tools/quilctl/files/validators.h"
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

void printStatus(std::ostream& out, const FpgaStatus& status) {
    out << "DONE               " << status.done << "\nimage              " << status.version
        << "\nDDR                " << status.ddr << "\nSGMII clock        " << status.clock
        << "\nSGMII negotiation  " << status.negotiation << "\nPHY link           " << status.link
        << '\n';
}

nlohmann::json jsonOf(const FpgaStatus& status) {
    return {{"done", status.done}, {"image", status.version},
            {"ddr", status.ddr},   {"sgmii_clock", status.clock},
            {"link", status.link}, {"sgmii_negotiation", status.negotiation}};
}

int showStatus(const Cli& cli) {
    BoardSession session(cli.options, cli.console);
    parseProduct();
    const FpgaStatus status = askStatus(session.board());
    if (cli.options.json) {
        cli.console.out << jsonOf(status).dump() << '\n';
    } else {
        printStatus(cli.console.out, status);
    }
    return status.done == "high" ? kOk : kFailed;
}

int load(const Cli& cli, const std::vector<std::string>& faultNames) {
    BoardSession session(cli.options, cli.console, false);
    const BringUpFaults faults(session.board(), faultNames, cli.console.err);
    BootStages stages(session, cli.console);
    parseProduct();
    stages.end("configuration", true, config_info->product);
    const host::FpgaLoad result = host::loadFpga();
    if (result == host::FpgaLoad::kNoSequence) stages.end("FPGA", false, "no load sequence");
    const FpgaStatus status = askStatus(session.board());
    if (cli.options.json) {
        cli.console.out << nlohmann::json{{"loaded", result == host::FpgaLoad::kUp},
                                          {"stages", nlohmann::json::parse(jsonOf(stages.all()))},
                                          {"status", jsonOf(status)}}
                               .dump()
                        << '\n';
    } else {
        printStages(cli.console.out, stages.all());
        printStatus(cli.console.out, status);
    }
    return result == host::FpgaLoad::kUp && stages.allOk() ? kOk : kFailed;
}

// An image of the workstation, on the board for as long as this lives, in place of the configured
// one.
class LentImage {
  public:
    LentImage(board::Board& board, const std::string& file)
        : mOnHost(board.hostPath(kPath)), mFormer(config_info->fpga_fw_path) {
        std::error_code error;
        fs::copy_file(file, mOnHost, fs::copy_options::overwrite_existing, error);
        if (error) throw std::runtime_error(file + ": " + error.message());
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
            path.copy(config_info->fpga_fw_path, sizeof config_info->fpga_fw_path - 1);
        config_info->fpga_fw_path[length] = '\0';
    }

    const fs::path mOnHost;
    const std::string mFormer;
};

// Steps of the update, as the board sees them go on.
void showSteps(board::Board& board, std::ostream& err) {
    board.trace().onEvent([&err](const board::Event& event) {
        const bool isStep = event.kind == board::EventKind::kFlash ||
                            (event.kind == board::EventKind::kNote && event.source == "fpga");
        if (!isStep) return;
        char stamp[32];
        std::snprintf(stamp, sizeof stamp, "%10.3f s  ",
                      std::chrono::duration<double>(event.at).count());
        err << stamp << event.source << ": " << event.text << '\n';
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

void printFlash(std::ostream& out, const FlashRun& run) {
    char line[96];
    std::snprintf(line, sizeof line, "%ju bytes in %.3f s of board time: ", run.bytes, run.seconds);
    out << line << (run.isDone ? "ok" : "FAILED");
    if (!run.problem.empty()) out << " (" << run.problem << ")";
    out << "\nDONE               " << run.status.done << "\nimage              "
        << run.status.version << '\n';
}

int flash(const Cli& cli, const std::string& file) {
    BoardSession session(cli.options, cli.console);
    parseProduct();
    showSteps(session.board(), cli.console.err);
    const FlashRun run = runFlash(session.board(), file);
    if (cli.options.json) {
        cli.console.out << nlohmann::json{{"done", run.isDone},
                                          {"bytes", run.bytes},
                                          {"took", run.seconds},
                                          {"problem", run.problem},
                                          {"status", jsonOf(run.status)}}
                               .dump()
                        << '\n';
    } else {
        printFlash(cli.console.out, run);
    }
    return run.isDone ? kOk : kFailed;
}

void addStatus(CLI::App& fpga, Cli& cli) {
    CLI::App* command =
        fpga.add_subcommand("status", "Ask for DONE, DDR, SGMII and the PHY's link");
    command->footer("Example: quilctl --board my-board fpga status");
    command->callback([&cli] { cli.action = [&cli] { return showStatus(cli); }; });
}

void addLoad(CLI::App& fpga, Cli& cli) {
    auto faults = std::make_shared<std::vector<std::string>>();
    CLI::App* command = fpga.add_subcommand("load", "Run the product's load sequence");
    addFaultOption(*command, *faults,
                   "Exit code 1 when a stage failed.\n"
                   "Example: quilctl --board my-board fpga load\n"
                   "         quilctl fpga load --fault ddr,link");
    command->callback(
        [&cli, faults] { cli.action = [&cli, faults] { return load(cli, *faults); }; });
}

}  // namespace

void addFpgaCommands(CLI::App& app, Cli& cli) {
    CLI::App* fpga = app.add_subcommand("fpga", "The FPGA: its image, its state, its bring-up");
    fpga->require_subcommand(1);
    fpga->fallthrough();
    fpga->footer("Example: quilctl --board my-board fpga load");
    addStatus(*fpga, cli);
    addLoad(*fpga, cli);
    auto file = std::make_shared<std::string>();
    CLI::App* command = fpga->add_subcommand("flash", "Write an image and restart the FPGA");
    command->add_option("FILE", *file, "The image")->required()->check(CLI::ExistingFile);
    command->footer(
        "Erases the flash, writes the image, restarts the FPGA and waits for DONE.\n"
        "Example: quilctl --board my-board fpga flash fpga.bin");
    command->callback([&cli, file] { cli.action = [&cli, file] { return flash(cli, *file); }; });
}

}  // namespace quil::tools
