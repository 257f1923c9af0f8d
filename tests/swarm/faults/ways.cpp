#include "tests/swarm/faults/ways.h"

#include <errno.h>
#include <signal.h>

#include <array>
#include <vector>

namespace quil::faults {
namespace {

using board::Call;
using board::Fault;

Way failing(Call call, const char* name, int error) {
    return {name, {.call = call, .error = error}};
}
Way shortTo(Call call, const char* name, size_t bytes) {
    return {name, {.call = call, .shortTo = bytes}};
}
Way lost(Call call) { return {"lost", {.call = call, .lostSilently = true}}; }
Way exiting(const char* name, int code) {
    return {name, {.call = Call::kSystem, .exitCode = code}};
}
Way killed() { return {"SIGKILL", {.call = Call::kSystem, .signal = SIGKILL}}; }

// clang-format off
#define FAILS(call, error) failing(Call::call, #error, error)
const std::vector<Way>& everyWay() {
    static const std::vector<Way> ways = {
        FAILS(kOpen, ENOENT), FAILS(kOpen, EACCES), FAILS(kOpen, EMFILE), FAILS(kOpen, EINTR),
        FAILS(kRead, EIO), FAILS(kRead, EAGAIN), FAILS(kRead, EINTR),
        shortTo(Call::kRead, "short 0", 0), shortTo(Call::kRead, "short 1", 1),
        FAILS(kWrite, EIO), FAILS(kWrite, EAGAIN), FAILS(kWrite, ENOSPC), FAILS(kWrite, EINTR),
        shortTo(Call::kWrite, "short 0", 0), shortTo(Call::kWrite, "short 1", 1),
        lost(Call::kWrite),
        FAILS(kClose, EIO), FAILS(kClose, EINTR),
        FAILS(kSelect, EBADF), FAILS(kSelect, EINTR), FAILS(kSelect, ENOMEM),
        FAILS(kPoll, EINTR), FAILS(kPoll, ENOMEM),
        FAILS(kFcntl, EBADF), FAILS(kFcntl, EINVAL),
        FAILS(kTcgetattr, EIO), FAILS(kTcgetattr, ENOTTY),
        FAILS(kTcsetattr, EIO), FAILS(kTcsetattr, EINTR),
        FAILS(kTcflush, EIO), FAILS(kTcflush, EINTR),
        FAILS(kAccess, ENOENT), FAILS(kAccess, EACCES),
        FAILS(kStat, ENOENT), FAILS(kStat, EACCES),
        FAILS(kFopen, ENOENT), FAILS(kFopen, EMFILE),
        FAILS(kRemove, ENOENT), FAILS(kRemove, EACCES),
        FAILS(kSystem, EAGAIN), exiting("exit 1", 1), exiting("exit 127", 127), killed(),
        lost(Call::kSystem),
        FAILS(kMalloc, ENOMEM),
        FAILS(kProbe, EIO), FAILS(kProbe, ENODEV),
        FAILS(kGpioSet, EIO), lost(Call::kGpioSet), FAILS(kGpioGet, EIO),
        FAILS(kFlashErase, EIO), lost(Call::kFlashErase),
        FAILS(kFlashProgram, EIO), lost(Call::kFlashProgram),
        FAILS(kVendor, EIO), FAILS(kVendor, ENODEV),
        FAILS(kPropertySet, EIO),
        FAILS(kSleep, EINTR),
        {"spurious", {.call = Call::kWait}},
    };
    return ways;
}
#undef FAILS
// clang-format on

}  // namespace

std::span<const Way> waysOf(Call call) {
    const std::vector<Way>& ways = everyWay();
    size_t first = 0;
    while (first < ways.size() && ways[first].fault.call != call) ++first;
    size_t end = first;
    while (end < ways.size() && ways[end].fault.call == call) ++end;
    return {ways.data() + first, end - first};
}

Fault faultAt(const Site& site, const Way& way) {
    Fault fault = way.fault;
    fault.path = site.path;
    fault.after = site.nth;
    return fault;
}

}  // namespace quil::faults
