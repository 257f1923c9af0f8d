#include "tools/quilctl/programming/flash_report.h"

#include <stdio.h>

#include "tools/quilctl/output/values.h"
#include "tools/quilctl/session/interruption.h"

namespace quil::tools {
namespace {

using programmer::Outcome;
using programmer::Report;
using programmer::Statistics;

double bytesPerSecond(size_t bytes, programmer::Nanos time) {
    const double seconds = secondsOf(time);
    return seconds > 0 ? static_cast<double>(bytes) / seconds : 0;
}

double inMilliseconds(programmer::Nanos time) { return secondsOf(time) * 1e3; }

template <typename... Values>
std::string formatted(const char* format, Values... values) {
    char text[200];
    snprintf(text, sizeof(text), format, values...);
    return text;
}

Json troublesOf(const Statistics& statistics) {
    Json json = Json::object();
    for (const auto& row : programmer::kTroubles) {
        const size_t times = statistics.times(row.trouble);
        if (times > 0) json[row.name] = times;
    }
    return json;
}

Json pageCountsOf(const Report& report) {
    const Statistics& numbers = report.statistics;
    return {{"of_image", report.plan.pagesOfImage},
            {"to_write", report.plan.pages.size()},
            {"equal", numbers.pagesEqual},
            {"erased", numbers.pagesErased},
            {"written", numbers.pagesWritten}};
}

void addJson(Json& json, const Report& report) {
    const Statistics& numbers = report.statistics;
    json["outcome"] = programmer::rowOf(report.outcome).name;
    json["chip"] = report.part != nullptr ? report.part->name : "";
    json["identity"] = report.identity.text();
    json["baud"] = report.line.baud;
    json["seconds"] = secondsOf(numbers.took);
    json["pages"] = pageCountsOf(report);
    json["troubles"] = troublesOf(numbers);
    json["turnaround_ms"] = {{"p50", inMilliseconds(numbers.turnaroundOf(50))},
                             {"p99", inMilliseconds(numbers.turnaroundOf(99))}};
    json["verified_by"] = report.verifiedBy;
    json["readout_protected"] = report.readoutProtected;
    if (numbers.bytesWritten > 0) {
        json["write"] = {{"bytes", numbers.bytesWritten},
                         {"rate", bytesPerSecond(numbers.bytesWritten, numbers.writing)},
                         {"ceiling", bytesPerSecond(numbers.bytesWritten, report.writeCeiling)}};
    }
    if (report.reason.empty()) return;
    json["reason"] = report.reason;
    json["remedy"] = report.remedy;
}

void addRates(std::ostream& out, const Report& report) {
    const Statistics& numbers = report.statistics;
    if (numbers.bytesWritten > 0) {
        out << formatted("wrote %zu bytes at %.2f kB/s, the line's ceiling is %.2f kB/s\n",
                         numbers.bytesWritten,
                         bytesPerSecond(numbers.bytesWritten, numbers.writing) / 1e3,
                         bytesPerSecond(numbers.bytesWritten, report.writeCeiling) / 1e3);
    }
    if (numbers.turnaroundOf(99) == programmer::Nanos(0)) return;
    out << formatted("turn-around: half within %.1f ms, 99 of 100 within %.1f ms\n",
                     inMilliseconds(numbers.turnaroundOf(50)),
                     inMilliseconds(numbers.turnaroundOf(99)));
}

void addText(std::ostream& out, const Report& report) {
    const Statistics& numbers = report.statistics;
    if (report.part == nullptr) return;
    out << "part  " << report.part->name << " (" << report.identity.text() << "), "
        << report.line.baud << " bit/s 8" << report.line.parity << "1\n";
    if (report.plan.pagesOfImage > 0) {
        out << formatted("pages %zu of the image: %zu equal, %zu erased, %zu written\n",
                         report.plan.pagesOfImage, numbers.pagesEqual, numbers.pagesErased,
                         numbers.pagesWritten);
    }
    addRates(out, report);
    for (const auto& row : programmer::kTroubles) {
        const size_t times = numbers.times(row.trouble);
        if (times == 0) continue;
        out << formatted("%zu x %s: %s\n", times, row.means, row.answer);
    }
}

}  // namespace

ExitCode exitCodeOf(Outcome outcome) {
    switch (outcome) {
        case Outcome::kProgrammed:
        case Outcome::kAlreadyCurrent:
        case Outcome::kDone:
            return kOk;
        case Outcome::kDiffers:
            return kFailed;
        case Outcome::kRefused:
            return kRefused;
        case Outcome::kFailedLoaderWaits:
            return kLoaderWaits;
        case Outcome::kFailedStateUnknown:
            return kStateUnknown;
    }
    return kInternal;
}

void addReport(Result& result, const Report& report, const std::string& what) {
    const char* meaning = programmer::rowOf(report.outcome).meaning;
    result.text << what << ": " << meaning;
    if (report.outcome == Outcome::kProgrammed || report.outcome == Outcome::kAlreadyCurrent) {
        result.text << ", verified by " << report.verifiedBy;
    }
    result.text << formatted(", %.3f s\n", secondsOf(report.statistics.took));
    addText(result.text, report);
    addJson(result.json, report);
    const ExitCode code = exitCodeOf(report.outcome);
    if (code == kOk) return;
    std::string text = what + ": " + meaning;
    if (!report.reason.empty()) text += ": " + report.reason;
    // An interruption has the exit code of the signal, whatever came of the flash.
    throw Failure(interruption() != 0 ? exitCodeOf(interruption()) : code, text, report.remedy);
}

}  // namespace quil::tools
