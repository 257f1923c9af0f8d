// A part's boot loader behind a pseudo terminal.
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <ostream>

#include "board/mcu/pty_bridge.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/validators.h"
#include "tools/quilctl/session/board_use.h"
#include "tools/quilctl/session/interruption.h"

namespace quil::tools {
namespace {

struct ModelArguments {
    std::string chip, link, flash;
    bool slowest = false;
};

// The part's flash, forgotten in the end when the caller names no file for it.
class FlashFile {
  public:
    explicit FlashFile(const std::string& named)
        : mIsTemporary(named.empty()),
          mPath(named.empty() ? std::filesystem::temp_directory_path() /
                                    ("quilctl-flash-" + std::to_string(getpid()))
                              : std::filesystem::path(named)) {}
    ~FlashFile() {
        std::error_code ignored;
        if (mIsTemporary) std::filesystem::remove(mPath, ignored);
    }
    FlashFile(const FlashFile&) = delete;
    FlashFile& operator=(const FlashFile&) = delete;

    std::string path() const { return mPath.string(); }

  private:
    const bool mIsTemporary;
    const std::filesystem::path mPath;
};

// The board whose part the file is, in use while the model is: two programs on one flash would each
// lose what the other writes. Null for a file that belongs to no board.
std::unique_ptr<board::DirectoryLock> useBoardAround(const std::string& file, const Cli& cli) {
    namespace fs = std::filesystem;
    fs::path folder = fs::weakly_canonical(fs::absolute(file)).parent_path();
    for (; folder.has_relative_path(); folder = folder.parent_path()) {
        if (!fs::is_directory(folder / "rootfs") || !fs::is_directory(folder / "mcu")) continue;
        auto use =
            useBoard(folder.string(), board::DirectoryLock::Use::kOwner, cli.options, cli.console);
        requireSoundBoard(folder.string());
        return use;
    }
    return nullptr;
}

void model(const Cli& cli, const ModelArguments& arguments, Result& result) {
    const board::McuPart* part = board::partNamedIn(arguments.chip);
    if (part == nullptr) throw Failure(kUsage, "there is no part " + arguments.chip);
    const auto use = arguments.flash.empty() ? nullptr : useBoardAround(arguments.flash, cli);
    const FlashFile flash(arguments.flash);
    board::PtyBridge bridge({.part = part->kind,
                             .flash = flash.path(),
                             .link = arguments.link,
                             .realtime = cli.options.realtime,
                             .seed = cli.options.seed,
                             .slowest = arguments.slowest});
    const Leftover leftover(arguments.link);
    const StopsAtInterruption stops([&bridge] { bridge.stop(); });
    if (!bridge.staleTarget().empty()) {
        cli.console.err << arguments.link << ": replaced, it led to " << bridge.staleTarget()
                        << ", which a model has left\n";
    }
    cli.console.err << part->name << " in its boot loader at " << bridge.port()
                    << ", ends with Ctrl-C\n";
    bridge.run();
    const auto violations = bridge.violations();
    result.json = {{"chip", part->name}, {"port", bridge.port()}, {"violations", violations}};
    if (violations.empty()) return;
    std::string text;
    for (const std::string& violation : violations) {
        text += (text.empty() ? "" : "; ") + violation;
    }
    throw Failure(kFailed, "board: " + text);
}

}  // namespace

void addMcuModelCommand(CLI::App& mcu, Cli& cli) {
    const auto [command, arguments] = addVerb(
        mcu, cli,
        {"model", "Put a part's boot loader behind a pty",
         "With --realtime the line and the flash take their time, the flash its typical one:\n"
         "--seed draws one between that and the longest. A pty has no parity.\n"
         "Ctrl-C and a termination are its normal end. Exit code 1 when the boot\n"
         "loader refused something as against its protocol.\n"
         "Examples: quilctl mcu model --chip gd32f303 --pty /tmp/mcu &\n"
         "          stm32flash -m 8n1 -b 115200 -w image.bin -v /tmp/mcu\n"
         "          quilctl mcu program --chip gd32f303 --port /tmp/mcu image.bin",
         kRealtimeOption | kSeedOption},
        model);
    command
        .add_option("--chip", arguments.chip, "gd32f303, gd32f470, gd32e503, stm32h750, n32g45x")
        ->required()
        ->check(chipName());
    command.add_option("--pty", arguments.link, "Symbolic link to make to the pty")->required();
    command.add_option(
        "--flash", arguments.flash,
        "File with the part's flash (default: an erased one, forgotten in the end); a "
        "board that it belongs to is in use as long");
    command.add_flag("--slowest", arguments.slowest, "The flash takes its longest times");
}

}  // namespace quil::tools
