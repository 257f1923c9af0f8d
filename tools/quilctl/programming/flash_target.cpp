#include "tools/quilctl/programming/flash_target.h"

#include <stdlib.h>

#include <filesystem>

#include "host/wire_frame.h"
#include "tools/quilctl/files/validators.h"
#include "tools/quilctl/session/interruption.h"

namespace quil::tools {
namespace {

namespace fs = std::filesystem;

Options targetOptions(Options options, const FlashArguments& arguments) {
    if (options.boardDirectory.empty()) options.chip = arguments.chip;
    return options;
}

// In the user's state folder, one for each board and port; none where there is no such folder.
fs::path journalOf(const std::string& target) {
    const char* state = getenv("XDG_STATE_HOME");
    const char* home = getenv("HOME");
    fs::path folder;
    if (state != nullptr && *state != '\0') {
        folder = state;
    } else if (home != nullptr && *home != '\0') {
        folder = fs::path(home) / ".local/state";
    } else {
        return {};
    }
    const programmer::Bytes bytes(target.begin(), target.end());
    return folder / "quilctl" / ("mcu-" + hex32(programmer::crc32Of(bytes)).substr(2) + ".journal");
}

}  // namespace

void addFlashOptions(CLI::App& command, FlashArguments& arguments) {
    command
        .add_option("--chip", arguments.chip, "The part that is expected: another one is refused")
        ->check(chipName());
    addPortOptions(command, arguments);
    command.add_option("--baud", arguments.baud, "The rate to begin with (default: 115200)")
        ->check(CLI::IsMember({9600, 19200, 38400, 57600, 115200, 230400, 460800, 921600}));
}

FlashTarget::FlashTarget(const Cli& cli, const FlashArguments& arguments) : mProgress(cli.console) {
    settings.chip = arguments.chip;
    if (isOnWorkstation(arguments.port)) {
        refuseIdleOptions(cli, arguments, false, kAllBoardOptions);
        mPath = arguments.port;
        mWakeful.emplace();
        mLines = modemLines(mPath, arguments.wiring);
        settings.journal = journalOf(fs::absolute(mPath).string());
    } else {
        mBoard.emplace(targetOptions(cli.options, arguments), cli.console);
        mPath = mBoard->board().mcuUart().path();
        if (!arguments.port.empty() && arguments.port != mPath) {
            throw std::runtime_error(arguments.port + " is neither the board's " + mPath +
                                     " nor a device");
        }
        refuseIdleOptions(cli, arguments, true, kAllBoardOptions);
        mLines = boardLines();
        if (settings.chip.empty()) settings.chip = mBoard->board().mcuChip().part().name;
        if (!cli.options.boardDirectory.empty()) {
            settings.journal = journalOf(fs::absolute(cli.options.boardDirectory).string());
        }
    }
    if (arguments.baud != 0) {
        const auto* part = programmer::partNamed(settings.chip);
        if (part != nullptr && part->protocol == programmer::Protocol::kN32 &&
            arguments.baud != 9600) {
            throw Failure(kUsage, "--baud: the N32's boot loader has 9600 bit/s only");
        }
        settings.link.baud = arguments.baud;
    }
    settings.link.applicationRequest = host::buildFrame({.command = 1});
}

programmer::Callbacks FlashTarget::callbacks() {
    return {
        .progress = [this](const programmer::Progress& progress) { mProgress.show(progress); },
        .cancelled = [] { return interruption() != 0; },
        .say = [this](const std::string& text) { mProgress.say(text); },
    };
}

}  // namespace quil::tools
