#include <algorithm>

#include "tools/quilctl/commands/verb.h"
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

void request(const Cli& cli, const RequestArguments& arguments, Result& result) {
    const Bytes body = bytesOf(arguments.data);
    if (body.size() > kBodyMax) {
        throw Failure(kUsage,
                      "a request carries at most " + std::to_string(kBodyMax) + " bytes of data");
    }
    const auto command = static_cast<uint32_t>(*parseNumber(arguments.command, UINT32_MAX));
    const char* kind = arguments.isWrite ? "set" : "get";
    const auto session = cli.connect(cli);
    const Bytes answer = ask(*session, arguments.isWrite, requestOf(command, body));
    result.json = {
        {"request", kind}, {"command", command}, {"answered", !answer.empty()}, {"answer", answer}};
    if (answer.empty()) throw Failure(kFailed, kind + (" " + hex32(command)) + ": no answer");
    result.text << toHex(answer);
    if (cli.console.screen.isTerminal && isPrintable(answer)) {
        const std::string text = "\"" + std::string(answer.begin(), answer.end()) + "\"";
        result.text << "  " << styled(cli.console.screen, Style::kFaint, text);
    }
    result.text << '\n';
}

CLI::Option* addCommandCode(CLI::App& command, RequestArguments& arguments) {
    return command.add_option("CMD", arguments.command, "Command code")
        ->required()
        ->check(numberUpTo(UINT32_MAX));
}

void addGet(CLI::App& app, Cli& cli) {
    const auto [command, arguments] =
        addVerb(app, cli,
                {"get", "Send a reading request",
                 "Examples: quilctl get 1\n          quilctl get 0x102 --data 01"},
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
    addCallbacks(app, cli);
}

}  // namespace quil::tools
