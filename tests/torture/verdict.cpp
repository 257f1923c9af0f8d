// Judges a run: by its own demand, and by what every run has to hold.
#include <string.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "tests/torture/case.h"
#include "tools/quilctl/output/exit_codes.h"

namespace quil::torture {
namespace {

using Json = nlohmann::json;
using Complaints = std::vector<std::string>;

bool isInTable(int code) {
    return std::any_of(tools::kExitCodes.begin(), tools::kExitCodes.end(),
                       [code](const tools::ExitCodeRow& row) { return row.code == code; });
}

// How it ended: never by a signal or not at all, and with a reason when it failed.
void judgeEnd(const Outcome& outcome, const std::string& said, bool canSay,
              Complaints& complaints) {
    const Ended& ended = outcome.ended;
    if (ended.timedOut || ended.signal != 0) {
        complaints.push_back(ended.timedOut ? "did not end"
                                            : std::string("died: ") + strsignal(ended.signal));
        return;
    }
    const std::string code = "exit code " + std::to_string(ended.code);
    if (!isInTable(ended.code)) complaints.push_back(code + " is not in the table");
    if (ended.code == tools::kInternal) complaints.push_back(code + ": a defect of its own");
    if (canSay && ended.code != 0 && said.find("quilctl:") == std::string::npos) {
        complaints.push_back(code + " without an explanation");
    }
}

// One line, an object with the documented members, which says what the exit code says.
void judgeJson(const tools::Words& verb, const Outcome& outcome, Complaints& complaints) {
    const std::string& out = outcome.out;
    const Json json = Json::parse(out, nullptr, false);
    if (!json.is_object() || std::count(out.begin(), out.end(), '\n') != 1 || out.back() != '\n') {
        complaints.push_back("not one line of JSON: " + out);
        return;
    }
    for (const auto& [name, value] : json.items()) {
        static const std::vector<std::string> kMembers = {"schema", "command", "exit_code", "error",
                                                          "result"};
        if (std::find(kMembers.begin(), kMembers.end(), name) == kMembers.end()) {
            complaints.push_back("JSON member " + name);
        }
    }
    const int code = outcome.ended.code;
    if (json.value("schema", 0) != 1) complaints.emplace_back("JSON schema is not 1");
    if (json.value("command", "") != textOf(verb)) complaints.emplace_back("JSON command is wrong");
    if (json.value("exit_code", -1) != code) complaints.emplace_back("JSON exit_code is wrong");
    if (json.contains("error") != (code != 0)) complaints.emplace_back("JSON error and exit code");
    if (code == 0 && !json.contains("result")) complaints.emplace_back("JSON without a result");
}

// The columns that a line takes on a terminal: escape sequences take none, a character of UTF-8
// one.
int widthOf(const std::string& line) {
    int width = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\x1b') {
            i = line.find_first_of("ABCDEFGHJKSTfhlmnsu", i);
            if (i == std::string::npos) break;
        } else if ((line[i] & 0xC0) != 0x80) {
            ++width;
        }
    }
    return width;
}

// Lines of the library's log and names of files are not wrapped.
bool mayBeLong(const std::string& line) {
    static const std::regex kLogLine("(\\x1b\\[[0-9;]*m)*[DIWE]/[^ :]*: .*");
    return std::regex_match(line, kLogLine) ||
           line.find(std::filesystem::temp_directory_path()) != std::string::npos;
}

// A line that the next one writes over has to fit, or a piece of each stays. Others have to fit 80
// columns.
void judgeLines(const std::string& shown, int columns, Complaints& complaints) {
    constexpr int kUsual = 80;
    std::string line;
    for (size_t i = 0; i < shown.size(); ++i) {
        const char c = shown[i];
        if (c != '\n' && c != '\r') {
            line += c;
            continue;
        }
        const bool isWrittenOver = c == '\r' && i + 1 < shown.size() && shown[i + 1] != '\n';
        const int most = isWrittenOver ? columns : kUsual;
        if (widthOf(line) > most && !mayBeLong(line)) {
            complaints.push_back("a line of " + std::to_string(widthOf(line)) +
                                 " columns: " + line);
        }
        line.clear();
    }
}

void judgeDemand(const Case& one, const Outcome& outcome, const Outcome& usual,
                 Complaints& complaints) {
    const int code = outcome.ended.code;
    const auto expect = [&](bool met, const std::string& what) {
        if (!met) complaints.push_back("exit code " + std::to_string(code) + ", not " + what);
    };
    const int usualCode = usual.ended.code;
    switch (one.demand) {
        case Demand::kAnyCode:
            return;
        case Demand::kExampleCode:
            return expect(code == outcome.exampleCode, std::to_string(outcome.exampleCode));
        case Demand::kSameCode:
            return expect(code == usualCode, std::to_string(usualCode));
        case Demand::kFailure:
            if (outcome.refused == 0) complaints.emplace_back("the call to fail did not come");
            return expect(code != 0, "a failure's");
        case Demand::kNotWritten:
            // A command that fails anyway may end with that code.
            return expect(code == tools::kNotWritten || (code != 0 && code == usualCode), "5");
        case Demand::kNoBoard:
            return expect(code == tools::kNoBoard, "4");
        case Demand::kInterrupted:
            return expect(code == 128 + one.interruption->signal, "an interruption's");
        case Demand::kTruth:
            return expect(code != 0 || outcome.tree == usual.tree,
                          "a failure's, but something is not written");
    }
}

}  // namespace

std::vector<std::string> complaintsAbout(const tools::Words& verb, const Case& one,
                                         const Outcome& outcome, const Outcome& usual) {
    Complaints complaints;
    const bool onTerminal = one.out == Stream::kTerminal;
    const std::string& said = onTerminal ? outcome.ended.terminal : outcome.err;
    judgeEnd(outcome, said, onTerminal || one.err == Stream::kFile, complaints);
    if (!complaints.empty()) return complaints;
    judgeDemand(one, outcome, usual, complaints);
    if (one.json && one.out == Stream::kFile && !outcome.outRefused) {
        judgeJson(verb, outcome, complaints);
    }
    if (onTerminal) judgeLines(outcome.ended.terminal, one.columns, complaints);
    for (const std::string& name : outcome.leftovers) {
        complaints.push_back("left behind in the temporary folder: " + name);
    }
    if (!outcome.boardProblem.empty()) complaints.push_back(outcome.boardProblem);
    for (const Outcome& rival : outcome.rivals) {
        const Case usualRival{.name = "rival", .json = one.json};
        for (const std::string& complaint :
             complaintsAbout(one.rival->verb, usualRival, rival, rival)) {
            complaints.push_back("the other: " + complaint);
        }
    }
    return complaints;
}

}  // namespace quil::torture
