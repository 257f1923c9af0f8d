#include "tools/quilctl/page/report.h"

#include <errno.h>

#include <algorithm>
#include <array>
#include <optional>

#include "board/core/whole_file.h"
#include "tools/quilctl/files/screen_picture.h"
#include "tools/quilctl/output/values.h"
#include "tools/quilctl/page/page_files.h"
#include "tools/quilctl/page/page_gate.h"
#include "tools/quilctl/page/timeline_rows.h"

namespace quil::tools {
namespace {

// What a script element may hold: without "<" nothing in it can end the element.
std::string scriptTextOf(const Json& document) {
    std::string text;
    for (const char c : document.dump(-1, ' ', true, Json::error_handler_t::replace)) {
        if (c == '<') {
            text += "\\u003c";
        } else {
            text += c;
        }
    }
    return text;
}

// As people read it elsewhere, without the colours of a terminal.
std::string plainText(const Reported& reported) {
    std::string text = reported.result.whole(), plain;
    for (const Failure& failure : reported.failures) {
        text += std::string("quilctl: ") + failure.what() + "\n";
        if (!failure.remedy().empty()) text += "  remedy: " + failure.remedy() + "\n";
    }
    bool isStyle = false;
    for (const char c : text) {
        isStyle = c == '\x1b' || isStyle;
        if (!isStyle) plain += c;
        if (c == 'm') isStyle = false;
    }
    return plain;
}

void replaceFirst(std::string& page, const std::string& what, const std::string& by) {
    const size_t at = page.find(what);
    if (at != std::string::npos) page.replace(at, what.size(), by);
}

// The file's content in the place of the element that asks for it.
void embed(std::string& page, const std::string& asks, const std::string& name,
           const std::string& element, const std::string& nonce) {
    const auto& files = pageFiles();
    replaceFirst(page, asks,
                 "<" + element + " nonce=\"" + nonce + "\">\n" + std::string(files.at(name)) +
                     "</" + element + ">");
}

}  // namespace

Json shownScreenOf(std::span<const uint8_t> partition) {
    const ScreenFile file = readScreenFile(partition);
    Json shown = jsonOf(file);
    shown["svg"] = svgOf(pictureOf(file));
    return shown;
}

// No chance decides what a report says, but for the nonce: a script that somebody gets into the
// page all the same cannot know it, and does not run.
std::string reportOf(const Recording& recording, const Reported& reported) {
    const std::string nonce = newToken();
    const ReportRows rows = reportRowsOf(recording.events);
    const Bytes screen(recording.screen.begin(), recording.screen.end());
    const Json content = {{"command", reported.commandLine},
                          {"text", plainText(reported)},
                          {"result", reported.result.json},
                          {"status", recording.status},
                          {"screen", shownScreenOf(screen)},
                          {"lost", rows.lost},
                          {"lanes", laneNames()},
                          {"spans", rows.rows}};
    std::string page(pageFiles().at("/index.html"));
    embed(page, R"(<link rel="stylesheet" href="/page.css">)", "/page.css", "style", nonce);
    for (const std::string name :
         {"/board.js", "/timeline.js", "/screen.js", "/controls.js", "/page.js"}) {
        embed(page, "<script src=\"" + name + "\" defer></script>", name, "script", nonce);
    }
    replaceFirst(page, "<meta name",
                 "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
                 "script-src 'nonce-" +
                     nonce + "'; style-src 'nonce-" + nonce +
                     "'; img-src data:; base-uri 'none'; form-action 'none'\">\n<meta name");
    replaceFirst(page, "</body>",
                 "<script type=\"application/json\" id=\"report\">" + scriptTextOf(content) +
                     "</script>\n</body>");
    return page;
}

void writeReport(const Recording& recording, const Reported& reported) {
    try {
        board::writeWholeFile(recording.file, reportOf(recording, reported));
    } catch (const std::runtime_error& error) {
        throw Failure(kNotWritten, std::string("--report: ") + error.what());
    }
}

}  // namespace quil::tools
