#include "tools/quilctl/session/self_test.h"

#include <algorithm>

#include "selftest/self_test.h"
#include "service/tclv_msg.h"
#include "tools/quilctl/files/self_test_record.h"
#include "tools/quilctl/session/client.h"

namespace quil::tools {
namespace {

using ::quil::hardware::quilservicemanager::implementation::kCommandSelfTest;

// The part that each item probes; items that are not listed probe nothing.
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

std::string verdictIn(const std::vector<SelfTestVerdict>& verdicts, const std::string& item) {
    const auto found = std::find_if(verdicts.begin(), verdicts.end(),
                                    [&](const SelfTestVerdict& one) { return one.item == item; });
    return found == verdicts.end() ? "-" : found->verdict;
}

// The library writes its results to the card before it answers.
std::string reasonOfSilence(BoardSession& session, size_t firstLine) {
    const board::SdCard card = session.board().probes().sdCard();
    std::string said = session.lastError(firstLine);
    if (card == board::SdCard::kPresent) return said;
    return std::string("the SD card is ") + nameOf(card) + (said.empty() ? "" : ": " + said);
}

}  // namespace

SelfTestRun runSelfTest(BoardSession& session, const std::vector<std::string>& broken) {
    const BrokenParts breakage(session.board().probes(), broken);
    const size_t since = session.board().trace().events().size();
    const size_t firstLine = session.board().logLines().size();
    SelfTestRun run{ask(session, false, requestOf(kCommandSelfTest, {})), {}, {}, {}};
    if (run.record.empty()) run.reason = reasonOfSilence(session, firstLine);
    const auto events = session.board().trace().events();
    for (size_t i = since; i < events.size(); ++i) {
        if (events[i].kind == board::EventKind::kProbe) run.probed.insert(events[i].source);
    }
    const auto verdicts = verdictsOf(run.record);
    for (const test_option_t& row : test_option_table) {
        run.items.push_back({row.name, row.enable != 0, verdictIn(verdicts, row.name),
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

}  // namespace quil::tools
