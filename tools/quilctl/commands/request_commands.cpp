#include <stdio.h>

#include <algorithm>

#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/command_table.h"
#include "tools/quilctl/files/validators.h"
#include "tools/quilctl/session/client.h"

namespace quil::tools {
namespace {

struct RequestArguments {
    std::string command;
    std::vector<std::string> data;
    bool isWrite = false;
};

bool isPrintable(const Bytes& bytes) {
    return !bytes.empty() &&
           std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b >= 32 && b < 127; });
}

// A name says what the command is for; a number is sent either way.
void requireDirection(const RequestArguments& arguments) {
    const CommandRow* row = commandNamed(arguments.command);
    if (row == nullptr || (arguments.isWrite ? row->writes : row->reads)) return;
    throw Failure(kUsage, arguments.command + " is only " + (arguments.isWrite ? "read" : "set") +
                              " (its number, " + hex32(row->first) + ", is sent all the same)");
}

std::string reasonOfSilence(uint32_t command) {
    return isAnswered(command) ? "" : ": nobody answers it (see quilctl commands list)";
}

void printAnswer(Result& result, const Bytes& answer, const Screen& screen) {
    result.text << toHex(answer);
    if (screen.isTerminal && isPrintable(answer)) {
        const std::string text = "\"" + std::string(answer.begin(), answer.end()) + "\"";
        result.text << "  " << styled(screen, Style::kFaint, text);
    }
    result.text << '\n';
}

void request(const Cli& cli, const RequestArguments& arguments, Result& result) {
    const Bytes body = bytesOf(arguments.data);
    if (body.size() > kBodyMax) {
        throw Failure(kUsage,
                      "a request carries at most " + std::to_string(kBodyMax) + " bytes of data");
    }
    requireDirection(arguments);
    const uint32_t command = *commandCodeOf(arguments.command);
    const std::string what = (arguments.isWrite ? "set " : "get ") + hex32(command);
    const auto session = cli.connect(cli);
    const bool isKnown = arguments.isWrite || !isMcuCommand(command) || session->mcuKnows(command);
    const Bytes answer = ask(*session, arguments.isWrite, requestOf(command, body));
    result.json = {{"request", arguments.isWrite ? "set" : "get"},
                   {"command", command},
                   {"answered", !answer.empty()},
                   {"known", isKnown},
                   {"answer", answer}};
    if (answer.empty()) throw Failure(kFailed, what + ": no answer" + reasonOfSilence(command));
    printAnswer(result, answer, cli.console.screen);
    if (isKnown) return;
    throw Failure(kFailed, what +
                               ": the MCU does not know this command: nothing was ever set, "
                               "and these bytes say only that");
}

CLI::Validator commandWord() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            return commandCodeOf(text) ? "" : unknownCommand(text);
        },
        "CMD");
}

CLI::Option* addCommandCode(CLI::App& command, RequestArguments& arguments) {
    return command.add_option("CMD", arguments.command, "Its name or number (commands list)")
        ->required()
        ->check(commandWord());
}

std::string directionOf(const CommandRow& row) {
    if (row.reads && row.writes) return "get, set";
    return row.reads ? "get" : "-";
}

void listCommands(const Cli& /*cli*/, Result& result) {
    result.text << "number              name         by       payload   meaning\n";
    result.json["commands"] = Json::array();
    for (const CommandRow& row : commandTable()) {
        const std::string last = row.last == row.first ? "" : "-" + hex32(row.last).substr(2);
        char columns[96];
        snprintf(columns, sizeof(columns), "%-19s %-12s %-8s %-9s ",
                 (hex32(row.first) + last).c_str(), row.name, directionOf(row).c_str(),
                 row.payload);
        result.text << columns << row.meaning << '\n';
        result.json["commands"].push_back({{"name", row.name},
                                           {"first", row.first},
                                           {"last", row.last},
                                           {"get", row.reads},
                                           {"set", row.writes},
                                           {"payload", row.payload},
                                           {"meaning", row.meaning}});
    }
}

void addCommandsList(CLI::App& app, Cli& cli) {
    CLI::App& commands = addGroup(
        app, {"commands", "The commands that get and set send", "Example: quilctl commands list"});
    addVerb(commands, cli,
            {"list", "Print numbers, names, directions, payloads and meanings",
             "Example: quilctl commands list", kNoBoardOption},
            listCommands);
}

void addGet(CLI::App& app, Cli& cli) {
    const auto [command, arguments] =
        addVerb(app, cli,
                {"get", "Send a reading request",
                 "Exit code 1 when there is no answer, or when the MCU does not know the command.\n"
                 "Examples: quilctl get version\n          quilctl get 0x102 --data 01"},
                request);
    addCommandCode(command, arguments);
    command.add_option("--data", arguments.data, "Body bytes")->check(hexBytes());
}

void addSet(CLI::App& app, Cli& cli) {
    const auto [command, arguments] = addVerb(
        app, cli, {"set", "Send a writing request", "Example: quilctl set 0x102 01 0A"}, request);
    arguments.isWrite = true;
    addCommandCode(command, arguments);
    command.add_option("DATA", arguments.data, "Body bytes")->required()->check(hexBytes());
}

struct CallbackArguments {
    std::vector<std::string> data{"01 02 03"};
    std::string count = "1";
};

void callbacks(const Cli& cli, const CallbackArguments& arguments, Result& result) {
    const Bytes data = bytesOf(arguments.data);
    const auto count = static_cast<size_t>(*parseNumber(arguments.count, 1000));
    const auto session = cli.connect(cli);
    const CallbackRun run = invokeCallbacks(*session, count, data);
    result.json = {{"invoked", run.invoked}, {"arrived", run.arrived}, {"removed", run.removed}};
    result.text << "hwInvoke returned " << run.invoked << '\n';
    for (size_t i = 0; i < run.arrived.size(); ++i) {
        result.text << "callback " << i + 1 << ": " << toHex(run.arrived[i]) << '\n';
    }
    if (count == 0) throw Failure(kFailed, "callbacks: none was registered");
    if (run.removed < count) {
        throw Failure(kFailed, "the service did not find " + std::to_string(count - run.removed) +
                                   " of " + std::to_string(count) + " callbacks again");
    }
    if (run.arrived != std::vector<Bytes>(count, data)) {
        throw Failure(kFailed, "callbacks: what arrived is not what was sent");
    }
}

void addCallbacks(CLI::App& app, Cli& cli) {
    const auto [command, arguments] = addVerb(app, cli,
                                              {"callbacks", "Register a callback and invoke it",
                                               "Example: quilctl callbacks --count 2 --data CAFE"},
                                              callbacks);
    command.add_option("--data", arguments.data, "Bytes to pass (default 01 02 03)")
        ->check(hexBytes());
    command.add_option("--count", arguments.count, "How often to register it (default 1)")
        ->check(numberUpTo(1000));
}

}  // namespace

void addRequestCommands(CLI::App& app, Cli& cli) {
    addGet(app, cli);
    addSet(app, cli);
    addCommandsList(app, cli);
    addCallbacks(app, cli);
}

}  // namespace quil::tools
