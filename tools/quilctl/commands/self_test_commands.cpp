#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>

#include "selftest/self_test.h"
#include "service/tclv_msg.h"
#include "tools/quilctl/files/self_test_record.h"
#include "tools/quilctl/files/validators.h"
#include "tools/quilctl/session/client.h"
#include "tools/quilctl/session/self_test.h"

namespace quil::tools {
namespace {

using ::quil::hardware::quilservicemanager::implementation::kCommandSelfTest;

// The board's part behind each item; the others probe nothing.
const char* partOf(uint32_t id) {
    const auto parts = board::Probes::partNames();
    return id >= 1 && id <= parts.size() ? parts[id - 1] : "";
}

bool isProbeOf(const board::Event& event, const std::string& part) {
    if (event.kind != board::EventKind::kProbe || part.empty()) return false;
    return event.source == part || event.source.rfind(part + ".", 0) == 0;
}

// What the board's probes found for a part, since that event of the trace.
std::string probesOf(const std::vector<board::Event>& events, size_t since,
                     const std::string& part) {
    std::string text;
    for (size_t i = since; i < events.size(); ++i) {
        if (!isProbeOf(events[i], part)) continue;
        text += (text.empty() ? "" : "; ") + events[i].source + " " + events[i].text;
    }
    return text.empty() ? "no probe" : text;
}

std::string verdictOf(const std::vector<SelfTestVerdict>& verdicts, const std::string& item) {
    const auto found = std::find_if(verdicts.begin(), verdicts.end(),
                                    [&](const SelfTestVerdict& one) { return one.item == item; });
    return found == verdicts.end() ? "-" : found->verdict;
}

void printTable(std::ostream& out, const SelfTestRun& run) {
    char line[256];
    std::snprintf(line, sizeof line, "%-10s %-8s %-8s %s\n", "item", "enabled", "verdict", "probe");
    out << line;
    for (const SelfTestItem& item : run.items) {
        std::snprintf(line, sizeof line, "%-10s %-8s %-8s %s\n", item.name.c_str(),
                      item.isEnabled ? "yes" : "no", item.verdict.c_str(), item.probe.c_str());
        out << line;
    }
    out << "record: " << toHex(run.record) << '\n';
}

void printJson(std::ostream& out, const SelfTestRun& run) {
    auto items = nlohmann::json::array();
    for (const SelfTestItem& item : run.items) {
        items.push_back({{"item", item.name},
                         {"enabled", item.isEnabled},
                         {"verdict", item.verdict},
                         {"probe", item.probe}});
    }
    out << nlohmann::json{{"passed", hasPassed(run.record)},
                          {"items", items},
                          {"record", run.record}}
               .dump()
        << '\n';
}

int selfTest(const Cli& cli, const std::vector<std::string>& broken) {
    BoardSession session(cli.options, cli.console);
    session.startService();
    const SelfTestRun run = runSelfTest(session, broken);
    if (cli.options.json) {
        printJson(cli.console.out, run);
    } else if (!run.record.empty()) {
        printTable(cli.console.out, run);
    }
    if (run.record.empty()) cli.console.err << "no answer\n";
    return hasPassed(run.record) ? kOk : kFailed;
}

CLI::Validator partName() {
    return CLI::Validator(
        [](std::string& name) -> std::string {
            if (name == kSdCardPart || board::Probes::isPart(name)) return {};
            return "the board has no part '" + name +
                   "': rtc, es8316 (or es8316.0 ..), wifi-ap, wifi-sta, idt6965, sdcard";
        },
        "PART");
}

void addSelfTest(CLI::App& app, Cli& cli) {
    auto broken = std::make_shared<std::vector<std::string>>();
    CLI::App* command = app.add_subcommand("self-test", "Let the board test its own parts");
    command
        ->add_option("--break", *broken,
                     "Parts that are broken for this run: rtc, es8316, es8316.0 (one codec), "
                     "wifi-ap, wifi-sta, idt6965, sdcard (taken out)")
        ->delimiter(',')
        ->check(partName());
    command->footer(
        "Exit code 1 when a part is in error or there is no answer.\n"
        "Example: quilctl self-test --break es8316,wifi-ap");
    command->callback(
        [&cli, broken] { cli.action = [&cli, broken] { return selfTest(cli, *broken); }; });
}

}  // namespace

SelfTestRun runSelfTest(BoardSession& session, const std::vector<std::string>& broken) {
    const BrokenParts breakage(session.board().probes(), broken);
    const size_t since = session.board().trace().events().size();
    SelfTestRun run{ask(session, false, requestOf(kCommandSelfTest, {})), {}};
    const auto events = session.board().trace().events();
    const auto verdicts = verdictsOf(run.record);
    for (const test_option_t& row : test_option_table) {
        run.items.push_back({row.name, row.enable != 0, verdictOf(verdicts, row.name),
                             probesOf(events, since, partOf(row.id))});
    }
    return run;
}

BrokenParts::BrokenParts(board::Probes& probes, const std::vector<std::string>& names)
    : mProbes(probes), mFormer(probes.settings()) {
    for (const std::string& name : names) {
        if (name == kSdCardPart) {
            mProbes.setSdCard(board::SdCard::kMissing);
        } else {
            mProbes.setHealth(name, board::Health::kFaulty);
        }
    }
}

BrokenParts::~BrokenParts() { mProbes.restore(mFormer); }

void addSelfTestCommands(CLI::App& app, Cli& cli) { addSelfTest(app, cli); }

}  // namespace quil::tools
