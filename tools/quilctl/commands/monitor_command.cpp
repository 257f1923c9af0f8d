#include <algorithm>
#include <ostream>

#include "board/core/trace.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/output/values.h"
#include "tools/quilctl/serve/board_socket.h"
#include "tools/quilctl/traces/event_arguments.h"

namespace quil::tools {
namespace {

constexpr int kForEver = -1;

struct MonitorArguments {
    std::vector<std::string> kinds;
    uint64_t count = 0;
};

constexpr board::EventKind kLastKind = board::EventKind::kMcu;

std::vector<std::string> kindNames() {
    std::vector<std::string> names;
    for (int kind = 0; kind <= static_cast<int>(kLastKind); ++kind) {
        names.emplace_back(board::nameOf(static_cast<board::EventKind>(kind)));
    }
    return names;
}

Json shownEvent(const board::Event& event) {
    return {{"at", secondsOf(event.at)},
            {"kind", board::nameOf(event.kind)},
            {"source", jsonOfBytes(event.source)},
            {"text", jsonOfBytes(event.text)},
            {"bytes", event.bytes}};
}

// A line for each event, as in a trace; with --progress json an object on the error stream.
class Monitor {
  public:
    Monitor(const Cli& cli, const MonitorArguments& arguments, Result& result)
        : mCli(cli), mArguments(arguments), mResult(result) {}

    void show(const Json& line) {
        if (line.contains("lost")) showLost(line.at("lost").get<uint64_t>());
        if (line.contains("event")) showEvent(eventIn(line.at("event")));
    }
    bool isDone() const { return mArguments.count > 0 && mShown >= mArguments.count; }
    void finish() { mResult.json = {{"events", mEvents}, {"lost", mLost}}; }

  private:
    void showLost(uint64_t lost) {
        mLost += lost;
        const std::string text = std::to_string(lost) + " events are lost: read too slowly";
        mCli.console.report.tell("lost", text, {{"count", lost}});
    }
    void showEvent(const board::Event& event) {
        ++mShown;
        if (mCli.console.report.form() == ReportForm::kJson) {
            mCli.console.report.tell("board", "", shownEvent(event));
        } else {
            mResult.text << board::toLine(event) << '\n';
            mResult.show();
        }
        if (mCli.options.json) mEvents.push_back(shownEvent(event));
    }

    const Cli& mCli;
    const MonitorArguments& mArguments;
    Result& mResult;
    Json mEvents = Json::array();
    uint64_t mShown = 0, mLost = 0;
};

// Most of the rest repeats what these say, byte by byte or call by call.
const std::vector<std::string> kUsual = {"power", "frame",     "gpio",  "shell", "log",
                                         "fault", "violation", "mcu",   "spi",   "flash",
                                         "probe", "request",   "vendor"};

Request requestFor(const MonitorArguments& arguments) {
    const auto& kinds = arguments.kinds.empty() ? kUsual : arguments.kinds;
    Request request{.kind = Request::Kind::kWatch};
    if (std::find(kinds.begin(), kinds.end(), "all") != kinds.end()) return request;
    request.kinds.insert(kinds.begin(), kinds.end());
    return request;
}

void monitor(const Cli& cli, const MonitorArguments& arguments, Result& result) {
    const std::string& directory = cli.options.boardDirectory;
    if (cli.options.json && arguments.count == 0) {
        throw Failure(kUsage, "--json prints one document in the end: say how long with --count",
                      "--progress json prints each event as it comes");
    }
    auto server = ServerConnection::to(directory);
    if (!server) throw Failure(kNoBoard, directory + " is not served any more");
    server->send(requestFor(arguments));
    Monitor shown(cli, arguments, result);
    while (!shown.isDone()) {
        const auto line = server->receiveFor(kForEver);
        if (!line) break;
        if (line->contains("watching")) {
            cli.console.err << directory << ": watching, ends with Ctrl-C" << std::endl;
        }
        shown.show(*line);
        if (!cli.console.out) break;  // nobody reads any more
    }
    shown.finish();
}

CLI::Validator kindName() {
    return CLI::Validator(
        [](std::string& name) -> std::string {
            const auto known = kindNames();
            const bool isKnown = std::find(known.begin(), known.end(), name) != known.end();
            if (isKnown || name == "all") return {};
            std::string text = "there is no kind '" + name + "': all";
            for (const std::string& one : known) text.append(", ").append(one);
            return text;
        },
        "KIND");
}

}  // namespace

void addMonitorCommand(CLI::App& app, Cli& cli) {
    const auto [command, arguments] = addVerb(
        app, cli,
        {"monitor", "Print what happens on a served board as it happens",
         "A line for each event, as in a trace; with --progress json an object on the\n"
         "error stream. Who reads too slowly loses events, and is told how many. Ctrl-C, a\n"
         "termination and the end of the server are its normal end.\n"
         "Example: quilctl --board my-board monitor --filter frame,spi,log",
         kBoardOption, Place::kOnClient},
        monitor);
    command
        .add_option("--filter", arguments.kinds,
                    "Kinds of events: all, power, frame, spi, log, gpio, .. (default: without "
                    "single bytes, sleeps and files)")
        ->delimiter(',')
        ->check(kindName());
    command.add_option("--count", arguments.count, "End after so many events");
}

}  // namespace quil::tools
