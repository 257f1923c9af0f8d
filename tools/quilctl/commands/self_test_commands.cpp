#include <stdio.h>

#include <algorithm>
#include <ostream>

#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/self_test_record.h"
#include "tools/quilctl/session/recording.h"
#include "tools/quilctl/session/self_test.h"

namespace quil::tools {
namespace {

struct SelfTestArguments {
    std::vector<std::string> broken;
};

void addItem(Result& result, const SelfTestItem& item) {
    char columns[64];
    snprintf(columns, sizeof(columns), "%-10s %-8s %-8s ", item.name.c_str(),
             item.isEnabled ? "yes" : "no", item.verdict.c_str());
    result.text << columns << item.probe << '\n';
    result.json["items"].push_back({{"item", item.name},
                                    {"enabled", item.isEnabled},
                                    {"verdict", item.verdict},
                                    {"probe", item.probe}});
}

// A part that no item probes cannot be found broken. The card is used by every run.
void requireProbed(const SelfTestRun& run, const std::vector<std::string>& broken) {
    std::string idle, probed;
    const auto add = [](std::string& list, const std::string& part) {
        list += (list.empty() ? "" : ", ") + part;
    };
    for (const std::string& part : broken) {
        const auto isIt = [&](const std::string& one) {
            return one == part || one.rfind(part + ".", 0) == 0;
        };
        const bool isMet = std::any_of(run.probed.begin(), run.probed.end(), isIt);
        if (part != kSdCardPart && !isMet) add(idle, part);
    }
    for (const std::string& part : run.probed) add(probed, part);
    if (idle.empty()) return;
    throw Failure(kUsage, "--break " + idle +
                              ": no item that runs on this board uses it; they use " + probed +
                              ", sdcard");
}

void selfTest(const Cli& cli, const SelfTestArguments& arguments, Result& result) {
    BoardSession session(cli.options, cli.console);
    session.startService();
    const SelfTestRun run = runSelfTest(session, arguments.broken);
    requireProbed(run, arguments.broken);
    result.json = {{"passed", hasPassed(run.record)}, {"items", Json::array()}};
    if (run.record.empty()) return throwUnlessPassed(run.record, run.reason);
    result.text << "item       enabled  verdict  probe\n";
    for (const SelfTestItem& item : run.items) addItem(result, item);
    result.json["record"] = run.record;
    result.text << "record: " << toHex(run.record) << '\n';
    throwUnlessPassed(run.record);
}

CLI::Validator partName() {
    return CLI::Validator(
        [](std::string& name) -> std::string {
            if (name == kSdCardPart || board::Probes::isPart(name)) return {};
            return "the board has no part '" + name +
                   "': rtc, es8316 (or es8316.0 ..), wifi-ap, wifi-sta, idt6965, sdcard";
        },
        "{rtc,es8316,wifi-ap,wifi-sta,idt6965,sdcard}");
}

}  // namespace

void addSelfTestCommands(CLI::App& app, Cli& cli) {
    const auto [command, arguments] =
        addVerb(app, cli,
                {"self-test", "Let the board test its own parts",
                 "Exit code 1 when a part is in error or there is no answer.\n"
                 "Example: quilctl self-test --break es8316,wifi-ap"},
                selfTest);
    command
        .add_option("--break", arguments.broken,
                    "Parts that are broken for this run: rtc, es8316, es8316.0 (one codec), "
                    "wifi-ap, wifi-sta, idt6965, sdcard (taken out)")
        ->delimiter(',')
        ->type_name("PART")
        ->check(partName());
    addReportOption(command, cli);
}

}  // namespace quil::tools
