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

namespace quil::tools {
namespace {

constexpr size_t kRowsMost = 1500000;  // bytes
constexpr size_t kBytesMost = 262144, kBytesOfEach = 64;

// Log lines with the same shape differ only in their numbers.
std::string shapeOf(const std::string& text) {
    std::string shape;
    bool isNumber = false;
    for (const char c : text) {
        const bool isDigit = c >= '0' && c <= '9';
        const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        isNumber = isDigit || (isNumber && isLetter);
        if (!isNumber) shape += c;
        if (isNumber && (shape.empty() || shape.back() != '#')) shape += '#';
    }
    return shape;
}

class Rows {
  public:
    explicit Rows(size_t bytesOfEach) : mBytesOfEach(bytesOfEach) {}

    void add(const board::Event& event) {
        const std::string kind = nameOf(event.kind);
        if (shownKinds().count(kind) == 0) return;
        std::string shape =
            event.kind == board::EventKind::kLog ? event.source + shapeOf(event.text) : "";
        if (!shape.empty() && shape == mShape) return merge(event);
        finishRun();
        mShape = std::move(shape);
        Bytes bytes = event.bytes;
        bytes.resize(std::min(bytes.size(), mBytesOfEach));
        const double at = secondsOf(event.at);
        put({at, kind, event.source, event.text, toHex(bytes), at});
    }

    ReportRows finish() {
        finishRun();
        return std::move(mRows);
    }

  private:
    enum Column { kText = 3, kUntil = 5 };

    void put(const Json& row) {
        mSize += row.dump(-1, ' ', true, Json::error_handler_t::replace).size();
        mIsFull = mSize > kRowsMost;
        if (mIsFull) {
            ++mRows.lost;
        } else {
            mRows.rows.push_back(row);
        }
    }

    void merge(const board::Event& event) {
        if (mIsFull) {
            ++mRows.lost;
            return;
        }
        ++mMerged;
        mLast = event.text;
        mRows.rows.back()[kUntil] = secondsOf(event.at);
    }

    void finishRun() {
        if (mMerged == 0) return;
        Json& text = mRows.rows.back()[kText];
        text = text.get<std::string>() + " .. " + mLast + " (" + std::to_string(mMerged + 1) +
               " lines)";
        mMerged = 0;
    }

    const size_t mBytesOfEach;
    ReportRows mRows;
    size_t mSize = 0, mMerged = 0;
    bool mIsFull = false;
    std::string mShape, mLast;
};

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

const std::set<std::string>& shownKinds() {
    static const std::set<std::string> kinds = {
        "power", "request", "frame", "uart-tx", "uart-rx", "spi",   "gpio",     "flash",
        "shell", "mcu",     "probe", "vendor",  "log",     "fault", "violation"};
    return kinds;
}

ReportRows reportRowsOf(const std::vector<board::Event>& events) {
    size_t bytes = 0;
    for (const board::Event& event : events) bytes += event.bytes.size();
    Rows rows(bytes > kBytesMost ? kBytesOfEach : bytes);
    for (const board::Event& event : events) rows.add(event);
    return rows.finish();
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
                          {"events", rows.rows}};
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
