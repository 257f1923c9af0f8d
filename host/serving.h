// The serving process: the product brought up, and its service offered through the binder.
#pragma once

#include <stddef.h>

namespace quil::host {

// A request holds a thread for as long as it waits, up to 5 s for each that is before it. Twelve of
// them are a minute of waiting, more than any client has use for; the thirteenth is turned away.
// The other four threads are for the calls that wait for nothing: debug, registrations, wakeUp from
// outside, hwInvoke. The kernel starts a thread only when a call finds none free, and the stacks
// of sixteen are 16 MiB of address space.
constexpr size_t kRpcThreads = 16;
constexpr unsigned kRequestsAtOnce = 12;

// What `main` does with its arguments; each `--leave-out=mcu` or `--leave-out=fpga` leaves a stage
// of the start-up out. Returns the exit code once the process has to end: 1 when the service did
// not come up, 2 for other arguments.
int serve(int count, const char* const* arguments);

}  // namespace quil::host
