// The command line. There are two programs: the engineers' own with a simulated board, and a small
// one for the device, which talks to the service that runs there.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>

namespace CLI {
class App;
}

namespace quil::tools {

class ServiceSession;

enum ExitCode : int {
    kOk = 0,
    kFailed = 1,   // no answer, a part in error, or the demo met something unexpected
    kUsage = 2,    // the command line itself is wrong
    kBadData = 3,  // a product file or a frame with something wrong in it
    kNoBoard = 4,  // the board directory cannot be used, or there is no service
};

struct Console {
    std::istream& in;
    std::ostream& out;
    std::ostream& err;
    bool styled = false;    // a terminal that wants bold and colour
    bool progress = false;  // the error stream is a terminal: a line may be written over
};

struct Options {
    std::string boardDirectory;  // empty: a temporary one
    std::string product;
    std::string chip;          // of a temporary board's MCU; empty: the product's
    std::string mcuInstalled;  // the version that the MCU has before; empty: as it is
    std::string traceFile;
    std::string logLevel;  // empty: as the board has it
    uint64_t seed = 1;
    bool realtime = false;
    bool json = false;
};

// What the parser leaves behind: the options, and what the chosen command will do.
struct Cli {
    Options options;
    Console console;
    std::unique_ptr<ServiceSession> (*connect)(const Cli& cli);  // throws std::runtime_error
    std::function<int()> action;
};

// What tells one program from another.
struct Program {
    const char* purpose;
    const char* footer;
    void (*addCommands)(CLI::App& app, Cli& cli);  // and the global options
    std::unique_ptr<ServiceSession> (*connect)(const Cli& cli);
};

// Everything but descriptors; an exit code.
int run(const Program& program, int argc, const char* const* argv, const Console& console);
extern const Program kBoardProgram, kDeviceProgram;

// Each adds its commands to the program.
void addRequestCommands(CLI::App& app, Cli& cli);
void addPowerCommands(CLI::App& app, Cli& cli);
void addSelfTestCommands(CLI::App& app, Cli& cli);
void addConfigCommands(CLI::App& app, Cli& cli);
void addFrameCommands(CLI::App& app, Cli& cli);
void addBoardCommands(CLI::App& app, Cli& cli);
void addBootCommand(CLI::App& app, Cli& cli);
void addFpgaCommands(CLI::App& app, Cli& cli);
void addScreenCommands(CLI::App& app, Cli& cli);
void addMcuCommands(CLI::App& app, Cli& cli);
void addDemoCommand(CLI::App& app, Cli& cli);

}  // namespace quil::tools
