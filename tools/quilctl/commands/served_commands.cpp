// What only a board that stays powered has: a power supply, parts that stay broken, a state.
#include <stdio.h>

#include <algorithm>

#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/serve/served_board.h"
#include "tools/quilctl/session/bring_up_faults.h"
#include "tools/quilctl/session/recording.h"

namespace quil::tools {
namespace {

ServedBoard& served() {
    if (ServedBoard::call() == nullptr) throw Failure(kInternal, "no board is served here");
    return ServedBoard::call()->board;
}

std::string inOneLine(const std::set<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : " ") + name;
    return text.empty() ? "none" : text;
}

void cutPower(const Cli& /*cli*/, Result& result) {
    served().cutPower();
    result.json["power"] = "off";
    result.text << "power off\n";
}

void switchOn(const Cli& /*cli*/, Result& result) {
    const bool wasOn = served().isPowered();
    if (!wasOn) served().powerOn();
    result.json = {{"power", "on"}, {"was_on", wasOn}};
    result.text << (wasOn ? "the power is on already\n" : "power on\n");
}

void resetBoard(const Cli& /*cli*/, Result& result) {
    served().resetToFactory();
    result.json["power"] = "on";
    result.text << "the board is as it leaves the factory; power on\n";
}

struct FaultArguments {
    std::vector<std::string> names;
};

void addBroken(Result& result) {
    const std::set<std::string> broken = served().broken();
    result.json["broken"] = broken;
    result.text << "broken: " << inOneLine(broken) << '\n';
}

void addFaults(const Cli& /*cli*/, const FaultArguments& arguments, Result& result) {
    for (const std::string& name : arguments.names) served().breakPart(name);
    addBroken(result);
}

void listFaults(const Cli& /*cli*/, Result& result) { addBroken(result); }

void clearFaults(const Cli& /*cli*/, const FaultArguments& arguments, Result& result) {
    std::set<std::string> names(arguments.names.begin(), arguments.names.end());
    if (names.empty()) names = served().broken();
    for (const std::string& name : names) served().mendPart(name);
    addBroken(result);
}

void showServedStatus(const Cli& /*cli*/, Result& result) {
    served().use([&](board::Board& board) { result.json = stateOf(board); });
    result.json["broken"] = served().broken();
    result.json["command"] = served().command();
    const Json& found = result.json;
    const std::string command = found["command"], version = found["fpga"]["version"];
    char seconds[32];
    snprintf(seconds, sizeof(seconds), "%.3f s", found["board_seconds"].get<double>());
    result.text << "power    " << std::string(found["power"]) << ", board time " << seconds
                << "\nMCU      " << std::string(found["mcu"]["state"]) << ' '
                << std::string(found["mcu"]["version"]) << "\nFPGA     "
                << (version.empty() ? "not configured" : version) << "\nlink     "
                << std::string(found["link"]) << "\nbroken   " << inOneLine(served().broken())
                << "\ncommand  " << (command.empty() ? "none" : command) << '\n';
    for (const Json& violation : found["violations"]) {
        result.text << "violation: " << std::string(violation) << '\n';
    }
}

CLI::Validator breakableName() {
    return CLI::Validator(
        [](std::string& name) -> std::string {
            const auto known = breakableNames();
            if (std::find(known.begin(), known.end(), name) != known.end()) return {};
            return "there is no fault '" + name +
                   "': " + inOneLine(std::set<std::string>(known.begin(), known.end()));
        },
        "NAME");
}

void addFaultVerb(CLI::App& faults, Cli& cli, const VerbText& text,
                  void (*act)(const Cli&, const FaultArguments&, Result&), bool needsNames) {
    const auto [command, arguments] = addVerb(faults, cli, text, act);
    command
        .add_option("NAME", arguments.names, "Their names (quilctl boot --help, self-test --help)")
        ->required(needsNames)
        ->check(breakableName());
}

void addFaultCommands(CLI::App& app, Cli& cli) {
    CLI::App& faults = addGroup(app, {"fault", "What is broken on a served board",
                                      "Example: quilctl --board my-board fault add link"});
    addFaultVerb(faults, cli,
                 {"add", "Break parts, also in the middle of another command",
                  "They stay broken across power cycles, until fault clear or the end of serve.\n"
                  "mcu: the MCU is silent.\n"
                  "Example: quilctl --board my-board fault add link mcu",
                  kBoardOption, Place::kAtOnce},
                 addFaults, true);
    addVerb(faults, cli,
            {"list", "Print what is broken", "Example: quilctl --board my-board fault list",
             kBoardOption, Place::kAtOnce},
            listFaults);
    addFaultVerb(
        faults, cli,
        {"clear", "Mend parts, or all of them",
         "Example: quilctl --board my-board fault clear link", kBoardOption, Place::kAtOnce},
        clearFaults, false);
}

}  // namespace

void addServedCommands(CLI::App& app, Cli& cli) {
    CLI::App& power = *app.get_subcommand("power");
    addVerb(power, cli,
            {"cut", "Cut a served board's power, also in the middle of another command",
             "Example: quilctl --board my-board power cut", kBoardOption, Place::kAtOnce},
            cutPower);
    addVerb(power, cli,
            {"on", "Switch a served board on again", "Example: quilctl --board my-board power on",
             kBoardOption, Place::kTurned},
            switchOn);
    addVerb(*app.get_subcommand("board"), cli,
            {"reset", "Make a served board as it leaves the factory",
             "All that it kept is lost: firmware, values, properties, what is wrong with parts.\n"
             "Files that no board from the factory has stay. It is powered anew.\n"
             "Example: quilctl --board my-board board reset",
             kBoardOption, Place::kTurned},
            resetBoard);
    addFaultCommands(app, cli);
    addVerb(app, cli,
            {"status", "Print the state of a served board, also in the middle of a command",
             "Example: quilctl --board my-board status", kBoardOption, Place::kAtOnce},
            showServedStatus);
}

}  // namespace quil::tools
