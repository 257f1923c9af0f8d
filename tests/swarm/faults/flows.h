// What is run over and over, each time with one failure: boots with clients, and each exported
// function by itself.
#pragma once

#include <stdint.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tests/swarm/faults/ways.h"
#include "tests/swarm/world.h"

namespace quil::faults {

using board::Call;

// With a failure at such a call the function returns that, or what another such row says; with one
// at any other call, the same as without a failure.
struct Fails {
    Call call;
    int64_t result;
    const char* path = "";         // a part of the call's
    const char* way = "";          // with what its name begins: "E" for all errors, "short 1"
    int from = 0, to = INT32_MAX;  // which ones of their kind and path
    bool orSucceeds = false;       // where a part decides that has been led astray
};

// An exported function that is called by itself.
struct Function {
    const char* name;
    void (*prepare)(board::Board&);
    int64_t (*call)(board::Board&);
    std::vector<Fails> fails = {};
    void (*cleanUp)(board::Board&) = nullptr;  // closes what the function leaves open
    board::McuKind part = board::McuKind::kGd32F303;
};

struct Flow {
    std::string name;
    // The boot with the failure, and the clean one behind it. With a function, the clean one only.
    swarm::World world;
    std::optional<Function> function;
    // How much longer one failure can make it, by all that the steps behind it may wait and try
    // again.
    board::Nanos slack{0};
};

std::vector<Flow> everyFlow();

enum class Images { kShipped, kSmallest };
// Sizes that an update programs completely: a page of a GD32F303 is erased only if the image fills
// it, and the last block to an N32 is sent only if it is a short one.
size_t mcuImageOf(board::McuKind, Images);
// Of threads that take turns, with a hosting component that does these jobs.
swarm::Boot plainBoot(bool updateMcu, bool loadFpga);

}  // namespace quil::faults
