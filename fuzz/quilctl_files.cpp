// What quilctl makes of records, images and names that come from elsewhere. Input: the bytes of
// one.
#include <algorithm>

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/targets.h"
#include "tools/quilctl/files/command_table.h"
#include "tools/quilctl/files/fpga_file.h"
#include "tools/quilctl/files/self_test_record.h"
#include "tools/quilctl/output/result.h"
#include "tools/quilctl/session/trace_files.h"

namespace quil::fuzz {
namespace {

void checkRecord(const tools::Bytes& record) {
    const auto verdicts = tools::verdictsOf(record);
    const auto isBad = [](const auto& one) { return one.verdict == "Error"; };
    const bool hasError = std::any_of(verdicts.begin(), verdicts.end(), isBad);
    const bool passed = tools::hasPassed(record);
    check(!passed || !hasError, "a record with an error passes");
    try {
        tools::throwUnlessPassed(record);
        check(passed, "what has not passed is no failure");
    } catch (const tools::Failure& failure) {
        check(!passed && failure.what()[0] != '\0', "what has passed is a failure");
    }
}

void checkFpgaFile(const std::string& content) {
    const tools::FpgaFile file = tools::checkFpgaFile(content);
    check(file.size == content.size(), "another size");
    for (const tools::FpgaPlace& place : tools::fpgaPlaces()) {
        const bool fits = place.room == 0 || file.size <= place.room;
        check(tools::obstacleFor(file, place).empty() == (fits && file.image.problem.empty()),
              "another obstacle than the image's own");
    }
}

void checkCommand(const std::string& text) {
    const auto code = tools::commandCodeOf(text);
    if (!code) return check(!tools::unknownCommand(text).empty(), "unknown without a word");
    check(tools::isAnswered(*code) || !tools::isMcuCommand(*code), "the MCU's command is nobody's");
}

}  // namespace

void quilctlFiles(std::span<const uint8_t> input) {
    const std::string text = textOf(input);
    checkRecord({input.begin(), input.end()});
    checkFpgaFile(text);
    checkCommand(text.substr(0, 64));
    const tools::TraceTarget target = tools::traceTargetOf(text.substr(0, 64));
    check(target.render == nullptr || !target.file.empty(), "a trace without a file");
}

}  // namespace quil::fuzz
