// Looks at the system calls of another program, and lets some of them fail. It stands below every
// library of the program, so that no write is missed and no board is in between.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <optional>
#include <string>

namespace quil::torture {

enum class Effect {
    kLooks,    // opens to read; reads, closes
    kAdds,     // needs space on a disk: writes, makes, renames, syncs
    kRemoves,  // needs no space, but a directory that may be written
    kCatches,  // takes SIGINT over from the kernel, which would end the program
    kAwaits,   // waits for a signal, for a time: a former one is dealt with
    kOther,    // of the program's threads and signals
};

struct SystemCall {
    Effect effect = Effect::kOther;
    std::string path;  // what it is about, absolute; "" for what happens to an open file unchanged
};

// In the child, between fork and exec: its calls will wait for who reads the descriptor that comes
// out of `socket`. False when this system cannot do that. Async-signal-safe.
bool offerCalls(int socket);
// In the parent: that descriptor; -1 when the child could not offer.
int takeOffer(int socket);

struct WaitingCall {
    uint64_t id;
    SystemCall call;
};
// The next call that waits; none when it has been given up meanwhile.
std::optional<WaitingCall> nextCall(int listener);
// Lets the call fail with `error`, or happen when that is 0.
void answerCall(int listener, uint64_t id, int error);

}  // namespace quil::torture
