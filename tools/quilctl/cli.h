// The command line. There are two programs: the engineers' own with a simulated board, and a small
// one for the device, which talks to the service that runs there.
#pragma once

#include <stdint.h>

#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/quilctl/output/reporter.h"
#include "tools/quilctl/output/result.h"
#include "tools/quilctl/output/screen.h"

namespace CLI {
class App;
}

namespace quil::tools {

class ServiceSession;
struct Recording;

inline constexpr char kVersion[] = "1.0.0", kReleased[] = "2026-11-22";

// What a program prints on.
struct Streams {
    std::istream& in;
    std::ostream& out;
    std::ostream& err;
    Screen outScreen = {}, errScreen = {};
};

// What a command may use of them: it prints through its Result.
struct Console {
    std::istream& in;
    std::ostream& out;  // for what is no result: a trace
    std::ostream& err;  // the reporter's lines of free text
    Reporter& report;   // progress and the library's log; --quiet turns it away
    Screen screen;      // of the result
    bool showsResult;   // to who reads `err`, too: what it will say need not be told as progress
    // For destructors, which cannot throw: these make the command fail.
    std::vector<Failure>& lateFailures;
};

// The global options that are about a board, as bits.
enum BoardOption : unsigned {
    kBoardOption = 1,
    kProductOption = 2,
    kTraceOption = 4,
    kLogLevelOption = 8,
    kSeedOption = 16,
    kRealtimeOption = 32,
    kNoBoardOption = 0,
    kAllBoardOptions = 63,
};

// Where a command of a board runs when its directory is served (serve/forwarding.h).
enum class Place {
    kInTurn,    // on the served board, one after the other
    kAtOnce,    // on the served board, also in the middle of another command; on no other board
    kTurned,    // on the served board in turn; on no other board
    kOnClient,  // here, as a client of the served board; on no other board
    kOff,       // here, on a board that is switched off
};

struct Options {
    std::string boardDirectory;  // empty: a temporary one
    std::string product;
    std::string chip;          // of a temporary board's MCU; empty: the product's
    std::string mcuInstalled;  // the version that the MCU has before; empty: as it is
    std::vector<std::string> traceFiles;
    std::string logLevel;  // empty: as the board has it
    uint64_t seed = 0;
    double wait = 10;  // seconds of the workstation's time, for a board directory that is in use
    bool realtime = false;
    bool json = false;
    bool quiet = false;
    unsigned given = 0;       // those of BoardOption that stand on the command line
    std::string commandLine;  // as typed, to be typed again
    std::string progress;
    std::shared_ptr<Recording> recording;  // of the board, for a report; null: nobody asks
};

// What the parser leaves behind: the options, and what the chosen command will do.
struct Cli {
    Options options;
    Console console;
    std::unique_ptr<ServiceSession> (*connect)(const Cli& cli);  // throws std::runtime_error
    std::function<void(Result&)> action;                         // throws Failure
    // What is left to do when all is known but the exit code. Throws Failure.
    std::function<void(const Result&, const std::vector<Failure>&)> conclude = {};
    unsigned boardOptions = kAllBoardOptions;  // with an effect on the action
    Place place = Place::kInTurn;
    std::string directory = {};  // the board's, when an argument of the command names it
};

struct CommandLine {
    int count;
    const char* const* words;  // the first is the program's name
};

// What tells one program from another.
struct Program {
    const char* purpose;
    const char* examples;
    void (*addCommands)(CLI::App& app, Cli& cli);  // and the global options
    std::unique_ptr<ServiceSession> (*connect)(const Cli& cli);
    // Runs the command line elsewhere, if that is the place for it, and gives its exit code.
    std::optional<int> (*forward)(const Cli& cli, const CommandLine& line,
                                  const Streams& streams) = nullptr;
};

// Everything but descriptors; an exit code. Throws nothing.
int run(const Program& program, int argc, const char* const* argv, const Streams& streams);
extern const Program kBoardProgram, kDeviceProgram;

// The words of each command of the program: {"get"}, .., {"mcu", "update"}, ..
using Words = std::vector<std::string>;
std::vector<Words> verbsOf(const Program& program);

// Each adds its commands to the program.
void addRequestCommands(CLI::App& app, Cli& cli);
void addPowerCommands(CLI::App& app, Cli& cli);
void addSelfTestCommands(CLI::App& app, Cli& cli);
void addConfigCommands(CLI::App& app, Cli& cli);
void addFrameCommands(CLI::App& app, Cli& cli);
void addFrameDecodeCommand(CLI::App& frame, Cli& cli);  // a part of "frame"
void addBoardCommands(CLI::App& app, Cli& cli);
void addServeCommand(CLI::App& app, Cli& cli);
void addServedCommands(CLI::App& app, Cli& cli);  // and parts of "power"
void addMonitorCommand(CLI::App& app, Cli& cli);
void addTraceCommands(CLI::App& app, Cli& cli);
void addBootCommand(CLI::App& app, Cli& cli);
void addFpgaCommands(CLI::App& app, Cli& cli);
void addFpgaImageCommands(CLI::App& fpga, Cli& cli);  // parts of "fpga"
void addScreenCommands(CLI::App& app, Cli& cli);
void addMcuCommands(CLI::App& app, Cli& cli);
void addMcuProgramCommands(CLI::App& mcu, Cli& cli);  // parts of "mcu"
void addMcuFlashCommands(CLI::App& mcu, Cli& cli);
void addMcuCareCommands(CLI::App& mcu, Cli& cli);
void addMcuRescueCommand(CLI::App& mcu, Cli& cli);
void addMcuModelCommand(CLI::App& mcu, Cli& cli);
void addDemoCommand(CLI::App& app, Cli& cli);
void addShellCommands(CLI::App& app, Cli& cli);

}  // namespace quil::tools
