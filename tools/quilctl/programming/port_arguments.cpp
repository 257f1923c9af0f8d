#include "tools/quilctl/programming/port_arguments.h"

#include <filesystem>
#include <ostream>

namespace quil::tools {
namespace {

constexpr struct {
    const char* name;
    BoardOption bit;
} kIdle[] = {
    {"--board", kBoardOption}, {"--product", kProductOption},    {"--seed", kSeedOption},
    {"--trace", kTraceOption}, {"--log-level", kLogLevelOption},
};

}  // namespace

void addPortOptions(CLI::App& command, PortArguments& arguments) {
    const auto isModemLine = CLI::IsMember({"none", "rts", "-rts", "dtr", "-dtr"});
    command.add_option("--port", arguments.port, "The serial device");
    command.add_option("--boot0", arguments.wiring.boot0, "What drives the MCU's BOOT0")
        ->check(isModemLine);
    command.add_option("--nrst", arguments.wiring.nrst, "What drives the MCU's NRST")
        ->check(isModemLine);
}

bool isOnWorkstation(const std::string& port) {
    std::error_code error;
    return std::filesystem::is_character_file(port, error);
}

void refuseIdleOptions(const Cli& cli, const PortArguments& arguments, bool isOnBoard,
                       unsigned boardOptions) {
    const bool isWired = arguments.wiring.boot0 != "none" || arguments.wiring.nrst != "none";
    if (isOnBoard && isWired) {
        throw Failure(kUsage,
                      "--boot0, --nrst: no effect on the board's own MCU; they belong to a "
                      "--port of this workstation");
    }
    if (isOnBoard) return;
    std::string idle;
    for (const auto& row : kIdle) {
        if ((cli.options.given & boardOptions & row.bit) == 0) continue;
        idle += (idle.empty() ? "" : ", ") + std::string(row.name);
    }
    if (!idle.empty()) {
        throw Failure(kUsage, idle + ": no effect on the MCU behind --port " + arguments.port);
    }
    if ((cli.options.given & kRealtimeOption) != 0) {
        cli.console.err << "--realtime is not needed: a real device is always in real time\n";
    }
}

}  // namespace quil::tools
