// A client of the service, as any component of the board would be one.
#pragma once

#include "tools/quilctl/output/values.h"
#include "tools/quilctl/session/service_session.h"

namespace quil::tools {

constexpr size_t kBodyMax = 65535;

// A request: command, error code 0, body length, body; all little-endian.
Bytes requestOf(uint32_t command, const Bytes& body);

// Sends the bytes as they are through `set` or `get` and gives the answer.
Bytes ask(ServiceSession& session, bool isWrite, const Bytes& request);

// What a self-test or a power mode is answered while firmware is being written. To a request of the
// MCU's it may be an answer like any other.
inline constexpr char kBusyText[] = "firmware is being written: ask again later";
inline bool saysBusy(const Bytes& answer) { return answer == Bytes{0xFF}; }

// Registers a callback `count` times, invokes it with `data`, takes it back as often, and gives
// what arrived.
struct CallbackRun {
    int32_t invoked = 0;  // what hwInvoke returned
    std::vector<Bytes> arrived;
    size_t removed = 0;  // registrations that the service found again
};
CallbackRun invokeCallbacks(ServiceSession& session, size_t count, const Bytes& data);

}  // namespace quil::tools
