// Programming without the update flow around it, and single boot-loader commands: on the board, or
// with an MCU behind a real serial device.
#include <stdio.h>

#include <filesystem>
#include <memory>
#include <ostream>
#include <stdexcept>

#include "config/config_info.h"
#include "isp/boot_loader.h"
#include "isp/isp_tasks.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/validators.h"
#include "tools/quilctl/programming/boot_loader_names.h"
#include "tools/quilctl/programming/contract_checks.h"
#include "tools/quilctl/programming/part_gate.h"
#include "tools/quilctl/programming/port_arguments.h"
#include "tools/quilctl/programming/programming_run.h"
#include "tools/quilctl/programming/task_answers.h"
#include "tools/quilctl/session/recording.h"

namespace quil::tools {
namespace {

namespace fs = std::filesystem;

// A board to program, or one that lends its place to a real device, with a gate in front of it.
class ProgrammingSession {
  public:
    ProgrammingSession(const Cli& cli, const PortArguments& arguments, const std::string& chip,
                       const std::shared_ptr<PartGate>& gate = nullptr)
        : mSession(optionsFor(cli.options, arguments, chip), cli.console),
          mPort(arguments.port.empty() ? board().mcuUart().path() : arguments.port) {
        refuseIdleOptions(cli, arguments, mPort == board().mcuUart().path(),
                          kProductOption | kSeedOption);
        if (mPort == board().mcuUart().path()) return;
        if (!isOnWorkstation(mPort)) {
            throw std::runtime_error(mPort + " is neither the board's " + board().mcuUart().path() +
                                     " nor a device");
        }
        if (arguments.wiring.boot0 == "none") {
            cli.console.err << "MCU_BOOT0 is not wired: the MCU has to be in its boot loader\n";
        }
        mLent.emplace(board(), mPort, arguments.wiring, asked(gate));
        mSession.setLeftOutside("the MCU behind " + mPort +
                                " may be half programmed, and wait in its boot loader");
    }

    board::Board& board() { return mSession.board(); }
    BoardSession& session() { return mSession; }
    const std::string& port() const { return mPort; }

  private:
    // The trace keeps its listeners, so they share the gate.
    board::Board::DeviceGate asked(const std::shared_ptr<PartGate>& gate) {
        if (gate == nullptr) return nullptr;
        board().trace().onEvent([gate](const board::Event& event) { gate->see(event); });
        return [gate](std::span<const uint8_t> request) { return gate->passes(request); };
    }
    static Options optionsFor(Options options, const PortArguments& arguments,
                              const std::string& chip) {
        if (isOnWorkstation(arguments.port)) options.realtime = true;
        if (options.boardDirectory.empty()) options.chip = chip;
        return options;
    }

    BoardSession mSession;
    const std::string mPort;
    std::optional<LentPort> mLent;
};

// A file of the workstation, by a path that is none of the board's.
std::string workstationPath(const std::string& file) {
    return "/." + fs::absolute(file).lexically_normal().string();
}

struct ProgramArguments : PortArguments {
    std::string chip;
    std::string file;
    bool asIs = false;
};

std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += (text.empty() ? "" : "; ") + line;
    return text;
}

// The flow asks the part for its name, and erases whatever the answer.
void checkPart(ProgrammingSession& programming, const std::string& chip) {
    const std::string fitted = programming.board().mcuChip().part().name;
    if (programming.port() != programming.board().mcuUart().path() || fitted == chip) return;
    throw Failure(kRefused, "the board's MCU is a " + fitted + ", not a " + chip + " (--chip)",
                  "--chip " + fitted + ", with an image for it; --as-is does it all the same");
}

void refuseOtherPart(const PartGate& gate, Result& result) {
    if (gate.refusal().empty()) return;
    result.json["done"] = false;
    throw Failure(kRefused, gate.refusal(),
                  "the right --chip, with an image for it; --as-is does it all the same");
}

void program(const Cli& cli, const ProgramArguments& arguments, Result& result) {
    const auto gate =
        std::make_shared<PartGate>(arguments.port, *programmer::partNamed(arguments.chip));
    ProgrammingSession programming(cli, arguments, arguments.chip, arguments.asIs ? nullptr : gate);
    checkForContract(arguments.file, arguments.chip, arguments.asIs);
    if (!arguments.asIs) checkPart(programming, arguments.chip);
    std::string file = workstationPath(arguments.file);
    std::string port = programming.port(), chip = arguments.chip;
    const ProgrammingOutcome outcome = runProgramming(
        programming.session(), cli.console, {port, chip, static_cast<size_t>(fs::file_size(file))},
        [&] { return mcu_isp_fw_update(file.data(), port.data(), chip.data()) == 0; });
    refuseOtherPart(*gate, result);
    addOutcome(result, cli.console.screen, outcome);
    const auto violations = programming.board().violations();
    result.json["violations"] = violations;
    if (!outcome.isWhole()) {
        throw Failure(kFailed,
                      "not programmed: " + reasonOf(outcome) +
                          (violations.empty() ? "" : "; board: " + joined(violations)),
                      remedyOf(outcome));
    }
    if (!violations.empty()) throw Failure(kFailed, "board: " + joined(violations));
}

std::optional<unsigned> commandCode(const std::string& text) {
    if (const auto number = parseNumber(text, 0xFF)) return static_cast<unsigned>(*number);
    for (const isp_cmd_t& row : isp_cmd_arr) {
        if (row.name != nullptr && bootLoaderName(row) == text) return row.code;
    }
    return std::nullopt;
}

CLI::Validator commandName() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            if (commandCode(text)) return {};
            std::string names;
            for (const isp_cmd_t& row : isp_cmd_arr) {
                if (row.name != nullptr) names += (names.empty() ? "" : ", ") + bootLoaderName(row);
            }
            return "'" + text + "' is no boot-loader command: 0x00 to 0xFF, " + names;
        },
        "CMD");
}

struct TaskArguments : PortArguments {
    std::string command;
    std::string file;  // empty: the shipped image
    std::string save;
};

constexpr unsigned kReadMemoryTask = 0x11;
constexpr char kReadBack[] = "/opt/test2.bin";  // where the session leaves what it has read

void saveReadBack(ProgrammingSession& programming, const std::string& to) {
    std::error_code error;
    fs::copy_file(programming.board().hostPath(kReadBack), to, fs::copy_options::overwrite_existing,
                  error);
    if (error) throw failureOf(kNotWritten, "--save " + to, error.value());
}

std::shared_ptr<TaskAnswers> watchAnswers(ProgrammingSession& programming) {
    auto answers = std::make_shared<TaskAnswers>(programming.port());
    programming.board().trace().onEvent(
        [answers](const board::Event& event) { answers->see(event); });
    return answers;
}

// What went wrong first, for a session that tells only that it failed.
std::string addAnswers(Result& result, const std::vector<TaskAnswer>& answers) {
    std::string wrong;
    result.json["answers"] = Json::array();
    for (const TaskAnswer& one : answers) {
        char column[32];
        snprintf(column, sizeof(column), "%-17s ", one.asked.c_str());
        result.text << column << one.said << '\n';
        result.json["answers"].push_back(
            {{"asked", one.asked}, {"ok", one.isGood}, {"said", one.said}, {"bytes", one.bytes}});
        if (!one.isGood && wrong.empty()) wrong = one.asked + ": " + one.said;
    }
    return wrong;
}

void runTask(const Cli& cli, const TaskArguments& arguments, Result& result) {
    if (!arguments.save.empty() && *commandCode(arguments.command) != kReadMemoryTask) {
        throw Failure(kUsage, "--save: no effect on " + arguments.command +
                                  "; only read-memory reads anything to save");
    }
    if (!arguments.save.empty()) requireWritable(arguments.save, "--save " + arguments.save);
    ProgrammingSession programming(cli, arguments, "");
    std::error_code ignored;
    fs::create_directories(programming.board().hostPath(kReadBack).parent_path(), ignored);
    if (arguments.file.empty() && parseConfigInfo() != 0) {
        throw Failure(kNoBoard, "the product configuration could not be read");
    }
    const std::string file =
        arguments.file.empty() ? config_info->mcu_fw_path : workstationPath(arguments.file);
    const auto answers = watchAnswers(programming);
    const int code =
        task(*commandCode(arguments.command), file.c_str(), programming.port().c_str());
    const auto said = answers->decoded();
    result.json["result"] = code;
    const std::string wrong = addAnswers(result, said);
    if (code == 0 && said.size() == 1 && wrong.empty()) {
        result.text << "(a session around " << arguments.command << " sends nothing more)\n";
    }
    result.text << "result            " << code << '\n';
    if (!arguments.save.empty()) saveReadBack(programming, arguments.save);
    if (code == 0 && wrong.empty()) return;
    throw Failure(kFailed, "mcu task " + arguments.command + ": result " + std::to_string(code) +
                               ": " + (wrong.empty() ? programming.session().lastError() : wrong));
}

// The library asks for the size of a file before it reads it: a pipe or a device has none.
CLI::Validator regularFile() {
    return CLI::Validator(
        [](std::string& file) -> std::string {
            std::error_code error;
            if (fs::is_regular_file(file, error)) return {};
            return file + ": " + (error ? error.message() : "not a regular file");
        },
        "FILE");
}

void addProgram(CLI::App& mcu, Cli& cli) {
    const auto [command, arguments] =
        addVerb(mcu, cli,
                {"program", "Program an image as the board does, once and unconditionally",
                 std::string(kPortHelp) +
                     "Examples: quilctl --board my-board mcu program --chip gd32f303 image.bin\n"
                     "          quilctl mcu program --chip stm32h750 --port /dev/ttyUSB0 \\\n"
                     "            --boot0 -rts --nrst -dtr image.bin"},
                program);
    command
        .add_option("--chip", arguments.chip,
                    "gd32f303, gd32f470, gd32e503, stm32h750 or n32g45x; a temporary board has "
                    "it, too")
        ->required()
        ->check(chipName());
    addPortOptions(command, arguments);
    command.add_flag("--as-is", arguments.asIs,
                     "Also another part, or an image that does not suit the flow");
    command.add_option("FILE", arguments.file, "The image")->required()->check(regularFile());
    addReportOption(command, cli);
}

void addTask(CLI::App& mcu, Cli& cli) {
    const auto [command, arguments] =
        addVerb(mcu, cli,
                {"task", "A session around one boot-loader command",
                 std::string(kPortHelp) +
                     "Prints what the boot loader answered; --log-level D shows the library's\n"
                     "lines, too. STM32 and GD32 parts only.\n"
                     "Example: quilctl mcu task get"},
                runTask);
    command
        .add_option("CMD", arguments.command,
                    "get, read-memory, write-memory, erase, extended-erase, write-unprotect, "
                    "readout-unprotect, or a code")
        ->required()
        ->check(commandName());
    addPortOptions(command, arguments);
    command
        .add_option("--file", arguments.file,
                    "The image to write, or a file as long as what is read or erased "
                    "(default: the shipped image)")
        ->check(regularFile());
    command.add_option("--save", arguments.save, "Where to put what read-memory has read")
        ->check(outputFile());
}

}  // namespace

void addMcuProgramCommands(CLI::App& mcu, Cli& cli) {
    addProgram(mcu, cli);
    addTask(mcu, cli);
}

}  // namespace quil::tools
