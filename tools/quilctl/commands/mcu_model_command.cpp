// A part's boot loader behind a pseudo terminal.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <ostream>

#include "board/mcu/pty_bridge.h"
#include "tools/quilctl/files/validators.h"
#include "tools/quilctl/programming/mcu.h"

namespace quil::tools {
namespace {

struct ModelArguments {
    std::string chip, link, flash;
};

std::atomic<board::PtyBridge*> gServing{nullptr};
std::atomic<bool> gStopped{false};

void stopServing(int) {
    gStopped = true;
    if (board::PtyBridge* bridge = gServing) bridge->stop();
}

// Ends the bridge at an interrupt or a termination, for as long as it lives.
class StoppedBySignals {
  public:
    StoppedBySignals() {
        gStopped = false;
        struct sigaction stopping {};
        stopping.sa_handler = stopServing;
        sigaction(SIGINT, &stopping, &mFormerInterrupt);
        sigaction(SIGTERM, &stopping, &mFormerTermination);
    }
    ~StoppedBySignals() {
        gServing = nullptr;
        sigaction(SIGINT, &mFormerInterrupt, nullptr);
        sigaction(SIGTERM, &mFormerTermination, nullptr);
    }
    StoppedBySignals(const StoppedBySignals&) = delete;
    StoppedBySignals& operator=(const StoppedBySignals&) = delete;

    // A signal that came before there was anything to stop counts as well.
    void watchOver(board::PtyBridge& bridge) {
        gServing = &bridge;
        if (gStopped) bridge.stop();
    }

  private:
    struct sigaction mFormerInterrupt {
    }, mFormerTermination{};
};

int model(const Cli& cli, const ModelArguments& arguments) {
    const board::McuPart* part = board::partNamedIn(arguments.chip);
    if (part == nullptr) return kUsage;
    StoppedBySignals signals;
    const std::filesystem::path temporary =
        std::filesystem::temp_directory_path() / ("quilctl-flash-" + std::to_string(getpid()));
    board::PtyBridge bridge(
        {.part = part->kind,
         .flash = arguments.flash.empty() ? temporary.string() : arguments.flash,
         .link = arguments.link,
         .realtime = cli.options.realtime});
    signals.watchOver(bridge);
    cli.console.err << part->name << " in its boot loader at " << bridge.port()
                    << ", ends with Ctrl-C\n";
    bridge.run();
    for (const std::string& violation : bridge.violations()) {
        cli.console.err << "board: " << violation << '\n';
    }
    std::error_code ignored;
    std::filesystem::remove(temporary, ignored);
    return bridge.violations().empty() ? kOk : kFailed;
}

}  // namespace

void addMcuModel(CLI::App& mcu, Cli& cli) {
    auto arguments = std::make_shared<ModelArguments>();
    CLI::App* command = mcu.add_subcommand("model", "Put a part's boot loader behind a pty");
    command->add_option("--chip", arguments->chip, "gd32f303, gd32f470, stm32h750 or n32g45x")
        ->required()
        ->check(chipName());
    command->add_option("--pty", arguments->link, "Symbolic link to make to the pty")->required();
    command->add_option(
        "--flash", arguments->flash,
        "File with the part's flash (default: an erased one, forgotten in the end)");
    command->footer(
        "With --realtime the line and the flash take their time. A pty carries no parity.\n"
        "Exit code 1 when the boot loader refused something as against its protocol.\n"
        "Examples: quilctl mcu model --chip gd32f303 --pty /tmp/mcu &\n"
        "          stm32flash -m 8n1 -b 115200 -w image.bin -v /tmp/mcu\n"
        "          quilctl mcu program --chip gd32f303 --port /tmp/mcu image.bin");
    command->callback(
        [&cli, arguments] { cli.action = [&cli, arguments] { return model(cli, *arguments); }; });
}

}  // namespace quil::tools
