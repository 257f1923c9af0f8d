#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>

#include "tools/quilctl/cli.h"
#include "tools/quilctl/files/validators.h"
#include "tools/quilctl/session/client.h"

namespace quil::tools {
namespace {

struct RequestArguments {
    std::string command;
    std::vector<std::string> data;
};

bool isPrintable(const Bytes& bytes) {
    return !bytes.empty() &&
           std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b >= 32 && b < 127; });
}

void printAnswer(const Cli& cli, uint32_t command, bool isWrite, const Bytes& answer) {
    std::ostream& out = cli.console.out;
    if (cli.options.json) {
        out << nlohmann::json{{"request", isWrite ? "set" : "get"},
                              {"command", command},
                              {"answered", !answer.empty()},
                              {"answer", answer}}
                   .dump()
            << '\n';
        return;
    }
    if (answer.empty()) return;
    out << toHex(answer);
    if (cli.console.styled && isPrintable(answer)) {
        out << "  \033[2m\"" << std::string(answer.begin(), answer.end()) << "\"\033[0m";
    }
    out << '\n';
}

int request(const Cli& cli, const RequestArguments& arguments, bool isWrite) {
    const Bytes body = bytesOf(arguments.data);
    if (body.size() > kBodyMax) {
        cli.console.err << "a request carries at most " << kBodyMax << " bytes of data\n";
        return kUsage;
    }
    const auto command = static_cast<uint32_t>(*parseNumber(arguments.command, UINT32_MAX));
    const auto session = cli.connect(cli);
    const Bytes answer = ask(*session, isWrite, requestOf(command, body));
    printAnswer(cli, command, isWrite, answer);
    if (!answer.empty()) return kOk;
    cli.console.err << "no answer\n";
    return kFailed;
}

void addRequest(CLI::App& app, Cli& cli, bool isWrite) {
    auto arguments = std::make_shared<RequestArguments>();
    CLI::App* command = isWrite ? app.add_subcommand("set", "Send a writing request")
                                : app.add_subcommand("get", "Send a reading request");
    command->add_option("CMD", arguments->command, "Command code")
        ->required()
        ->check(numberUpTo(UINT32_MAX));
    CLI::Option* data = isWrite ? command->add_option("DATA", arguments->data, "Body bytes")
                                : command->add_option("--data", arguments->data, "Body bytes");
    data->check(hexBytes());
    if (isWrite) data->required();
    command->footer(isWrite ? "Example: quilctl set 0x102 01 0A"
                            : "Examples: quilctl get 1\n          quilctl get 0x102 --data 01");
    command->callback([&cli, arguments, isWrite] {
        cli.action = [&cli, arguments, isWrite] { return request(cli, *arguments, isWrite); };
    });
}

struct CallbackArguments {
    std::vector<std::string> data{"01 02 03"};
    std::string count = "1";
};

int callbacks(const Cli& cli, const CallbackArguments& arguments) {
    const Bytes data = bytesOf(arguments.data);
    const auto count = static_cast<size_t>(*parseNumber(arguments.count, 1000));
    const auto session = cli.connect(cli);
    const CallbackRun run = invokeCallbacks(*session, count, data);
    cli.console.out << "hwInvoke returned " << run.invoked << '\n';
    for (size_t i = 0; i < run.arrived.size(); ++i) {
        cli.console.out << "callback " << i + 1 << ": " << toHex(run.arrived[i]) << '\n';
    }
    if (run.removed < count) {
        cli.console.err << "the service did not find " << count - run.removed << " of " << count
                        << " callbacks again\n";
        return kFailed;
    }
    return run.arrived == std::vector<Bytes>(count, data) && count > 0 ? kOk : kFailed;
}

void addCallbacks(CLI::App& app, Cli& cli) {
    auto arguments = std::make_shared<CallbackArguments>();
    CLI::App* command = app.add_subcommand("callbacks", "Register a callback and invoke it");
    command->add_option("--data", arguments->data, "Bytes to pass (default 01 02 03)")
        ->check(hexBytes());
    command->add_option("--count", arguments->count, "How often to register it (default 1)")
        ->check(numberUpTo(1000));
    command->footer("Example: quilctl callbacks --count 2 --data CAFE");
    command->callback([&cli, arguments] {
        cli.action = [&cli, arguments] { return callbacks(cli, *arguments); };
    });
}

}  // namespace

void addRequestCommands(CLI::App& app, Cli& cli) {
    addRequest(app, cli, false);
    addRequest(app, cli, true);
    addCallbacks(app, cli);
}

}  // namespace quil::tools
