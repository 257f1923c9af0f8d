#include <filesystem>
#include <ostream>

#include "board/core/kept_store.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/page/page_process.h"
#include "tools/quilctl/serve/serving.h"
#include "tools/quilctl/session/board_session.h"

namespace quil::tools {
namespace {

constexpr int kNoPage = -1;

struct ServeArguments {
    std::string speed, link;
    int pagePort = kNoPage;
};

// As Serving takes it; 0: as fast as it can.
int speedOf(const ServeArguments& arguments, const Options& options) {
    if (arguments.speed.empty()) return options.realtime ? 1 : 0;
    return arguments.speed == "max" ? 0 : std::stoi(arguments.speed);
}

// The board of --board, for this program alone, or a temporary one.
class BoardToServe {
  public:
    explicit BoardToServe(const Cli& cli) {
        const Options& options = cli.options;
        if (options.boardDirectory.empty()) {
            mTemporary.emplace(
                board::productByName(options.product).value_or(board::Product::kHeron));
            return;
        }
        mUse = useBoard(options.boardDirectory, board::DirectoryLock::Use::kOwner, options,
                        cli.console);
        requireSoundBoard(options.boardDirectory);
        requireSameProduct(options);
        mDirectory = options.boardDirectory;
    }
    std::filesystem::path path() const { return mTemporary ? mTemporary->path() : mDirectory; }

  private:
    std::unique_ptr<board::DirectoryLock> mUse;
    std::optional<TemporaryBoard> mTemporary;
    std::filesystem::path mDirectory;
};

void tellOfReplaced(const McuPorts& ports, std::ostream& err) {
    for (const std::string& link : ports.replaced()) {
        err << link << ": replaced, it led to a port that is gone\n";
    }
}

void serve(const Cli& cli, const ServeArguments& arguments, Result& result) {
    const BoardToServe board(cli);
    const std::string directory = board.path().string();
    const std::string product = productOf(board.path());
    Serving serving(board.path(),
                    {.speed = speedOf(arguments, cli.options), .seed = cli.options.seed},
                    arguments.link);
    result.json = {{"directory", directory}, {"product", product}};
    if (serving.ports() != nullptr) tellOfReplaced(*serving.ports(), cli.console.err);
    std::optional<PageProcess> page;  // before the board has its threads
    if (arguments.pagePort != kNoPage) page.emplace(board.path(), arguments.pagePort);
    serving.run([&] {
        result.text << directory << ": the " << product
                    << " is powered until Ctrl-C; quilctl --board " << directory
                    << " .. talks to it\n";
        if (!arguments.link.empty()) {
            result.text << arguments.link << ": the MCU's line; " << arguments.link
                        << ".boot: the same, in the boot loader while it is open\n";
        }
        result.show();
    });
    const std::string unkept = board::takeKeepFailure();
    if (!unkept.empty()) throw Failure(kNoBoard, "the board's state is lost: " + unkept);
}

}  // namespace

void addServeCommand(CLI::App& app, Cli& cli) {
    const auto [command, arguments] =
        addVerb(app, cli,
                {"serve", "Keep a board powered for other commands",
                 "Every command with the same --board then acts on this board, one after the\n"
                 "other, and finds it as the one before has left it (docs/workbench.md). Without\n"
                 "--board it is a temporary one. Ctrl-C and a termination are its normal end.\n"
                 "\n"
                 "--pty lets other programs at the MCU's serial line: LINK is the line as it is.\n"
                 "LINK.boot has BOOT0 and the reset too: from its open to its close the MCU is in\n"
                 "its boot loader, and then starts what it has got. A pty has no parity.\n"
                 "Example: quilctl --board my-board serve &\n"
                 "         quilctl --board my-board fpga load\n"
                 "         quilctl --board my-board fpga status\n"
                 "         quilctl serve --pty mcu & stm32flash -m 8n1 -w image.bin -v mcu.boot",
                 kBoardOption | kProductOption | kSeedOption | kRealtimeOption, Place::kOff},
                serve);
    command
        .add_option(
            "--speed", arguments.speed,
            "Board time: 1, as fast as the workstation's, as with --realtime; 10, ten times; max "
            "(default), "
            "it jumps to the next event, and stands still between commands")
        ->check(CLI::IsMember({"1", "10", "max"}));
    command
        .add_option("--pty", arguments.link,
                    "Symbolic links to make to the MCU's line: LINK and LINK.boot")
        ->type_name("LINK");
    const auto takePort = [&arguments = arguments](const std::vector<int>& port) {
        arguments.pagePort = port.empty() ? 0 : port.front();
    };
    command
        .add_option_function<std::vector<int>>(
            "--web", takePort, "Show the board in the browser, at the address that is printed")
        ->type_name("[PORT]")
        ->expected(0, 1)
        ->check(CLI::Range(0, 65535));
    addPageCommand(app, cli);
}

}  // namespace quil::tools
