// Looks at the system calls of another program, and lets some of them fail. It stands below every
// library of the program, so that no write is missed and no board is in between.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>

struct seccomp_notif;

namespace quil::torture {

enum class Effect {
    kLooks,    // opens to read; reads, closes
    kAdds,     // needs space on a disk: writes, makes, renames, syncs
    kRemoves,  // needs no space, but a directory that may be written
    kHandles,  // takes a signal over
};

struct SystemCall {
    Effect effect = Effect::kLooks;
    std::string path;  // what it is about, absolute; "" for what happens to an open file unchanged
    int signal = 0;    // with kHandles
};

// Called before each call that may matter: an errno with which it fails, or 0 to let it happen.
using Policy = std::function<int(const SystemCall&)>;

// In the child, between fork and exec: its calls will wait for who reads the descriptor that comes
// out of `socket`. False when this system cannot do that. Async-signal-safe.
bool offerCalls(int socket);
// In the parent: that descriptor; -1 when the child could not offer.
int takeOffer(int socket);

// Lets the policy decide one waiting call.
void decideNextCall(int listener, const Policy& policy);

}  // namespace quil::torture
