#include "tools/quilctl/files/self_test_record.h"

#include <algorithm>
#include <sstream>

#include "tools/quilctl/output/result.h"

namespace quil::tools {
namespace {

constexpr size_t kVerdictAt = 8, kTextAt = 10;

}  // namespace

std::vector<SelfTestVerdict> verdictsOf(const Bytes& record) {
    std::vector<SelfTestVerdict> verdicts;
    if (record.size() < kTextAt) return verdicts;
    std::istringstream lines(std::string(record.begin() + kTextAt, record.end()));
    for (std::string line; std::getline(lines, line);) {
        const size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        const size_t end = line.find('\r', colon);
        verdicts.push_back({line.substr(0, colon), line.substr(colon + 1, end - colon - 1)});
    }
    return verdicts;
}

bool hasPassed(const Bytes& record) {
    if (record.size() < kTextAt || record[kVerdictAt] != 0) return false;
    const auto verdicts = verdictsOf(record);
    return std::none_of(verdicts.begin(), verdicts.end(),
                        [](const SelfTestVerdict& one) { return one.verdict == "Error"; });
}

void throwUnlessPassed(const Bytes& record, const std::string& reason) {
    if (record.empty()) {
        throw Failure(
            kFailed, "self-test: no answer" + (reason.empty() ? "" : ": " + reason),
            "the result goes by /sdcard/self_test_results.txt: see that the SD card is in "
            "and can be written");
    }
    if (hasPassed(record)) return;
    std::string parts;
    for (const SelfTestVerdict& one : verdictsOf(record)) {
        if (one.verdict == "Error") parts += (parts.empty() ? "" : ", ") + one.item;
    }
    throw Failure(kFailed,
                  "self-test: " + (parts.empty() ? "it did not run" : "in error: " + parts),
                  "the column 'probe', or the log with --log-level D, has what each part said");
}

}  // namespace quil::tools
