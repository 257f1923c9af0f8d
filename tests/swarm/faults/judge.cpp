#include "tests/swarm/faults/judge.h"

#include <string.h>

#include <optional>

#include "tests/swarm/judge.h"

namespace quil::faults {
namespace {

using board::Fault;

// A step whose failure nobody may look at leaves the next one a part that is not ready for it.
struct Consequence {
    std::optional<Call> call;  // null: any
    const char* path;          // a part of the call's
    const char* violation;     // a part of what it may lead to; null: any at the MCU's line
};
constexpr Consequence kConsequences[] = {
    // A request that is lost or cut short, or sent with other settings.
    {Call::kWrite, "/dev/tty", nullptr},
    {Call::kTcgetattr, "/dev/tty", nullptr},
    {Call::kTcsetattr, "/dev/tty", nullptr},
    {Call::kVendor, "bi_common_ini_get_int", nullptr},
    // The boot loader is spoken to, and the application runs.
    {std::nullopt, "MCU_BOOT0", nullptr},
    {std::nullopt, "MCU_NRST", nullptr},
    {std::nullopt, "RTL8211FS_RSTN", "phy: a register is accessed before the PHY has started"},
    {Call::kGpioSet, "gpio ", "fpga: the flash is used while PROG_B is high"},
    {Call::kFlashErase, "", "/dev/mtd0: page"},
    {Call::kSystem, "mtd_debug erase", "/dev/mtd0: page"},
};

bool isConsequence(const Fault& fault, const std::string& violation, board::Board& board) {
    for (const Consequence& row : kConsequences) {
        if (row.call.value_or(fault.call) != fault.call) continue;
        if (fault.path.find(row.path) == std::string::npos) continue;
        if (row.violation == nullptr ? swarm::isOfTheLink(violation, board)
                                     : violation.find(row.violation) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// A call that takes no time can be made to wait for some steps that do not; others for all that is
// behind them.
std::chrono::nanoseconds slackOf(const Flow& flow, const Recording& clean) {
    constexpr std::chrono::seconds kQuick{3}, kSteps{10};
    return flow.function && clean.took < kQuick ? kSteps : flow.slack;
}

bool applies(const Fails& row, const Site& site, const Way& way) {
    return row.call == site.call && site.path.find(row.path) != std::string::npos &&
           site.nth >= row.from && site.nth <= row.to &&
           strncmp(way.name, row.way, strlen(row.way)) == 0;
}

std::string difference(int64_t result, int64_t wanted) {
    return "result: " + std::to_string(result) + " instead of " + std::to_string(wanted);
}

}  // namespace

std::string problemOfBoot(const Flow& flow, const Recording& clean, const Fault& fault,
                          board::Board& board, board::Nanos took) {
    if (board.trace().events(board::EventKind::kFault).empty()) return "trial: nothing failed";
    for (const std::string& violation : board.violations()) {
        if (violation.front() != '#' && !isConsequence(fault, violation, board)) {
            return "violation: " + violation;
        }
    }
    if (took > clean.took + slackOf(flow, clean)) {
        return "time: " +
               std::to_string(std::chrono::duration_cast<std::chrono::seconds>(took).count()) +
               " s of board time";
    }
    swarm::Boot boot;
    boot.faults = {fault};
    return swarm::problemOfBoot(boot, board, true);
}

std::string problemOfResult(const Flow& flow, const Recording& clean, const Site& site,
                            const Way& way, int64_t result) {
    std::optional<int64_t> wanted;
    for (const Fails& row : flow.function->fails) {
        if (!applies(row, site, way)) continue;
        if (result == row.result || (row.orSucceeds && result == clean.result)) return "";
        wanted = row.result;
    }
    const int64_t expected = wanted.value_or(clean.result);
    return result == expected ? "" : difference(result, expected);
}

}  // namespace quil::faults
