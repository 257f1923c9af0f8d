// One world: everything that a seed decides. Plain data, so that it can be printed as steps that a
// person reads, and shrunk.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

#include "board/board.h"
#include "board/mcu/mcu_parts.h"

namespace quil::swarm {

using board::Nanos;

// What a client does. Each has an answer of its own at the MCU.
enum class Act {
    kGet,
    kSet,
    kSelfTest,
    kSetSelfTest,
    kLowPower,
    kNormalPower,
    kUnknownCommand,
    kTooShort,
    kRegister,
    kUnregister,
    kInvoke,
    kDebug,
    kWakeUp  // from outside: bytes that the MCU never sent
};
// What a callback does when it is called: that of a request with its answer, or a registered one.
enum class Reaction { kNone, kWakesUp, kInvokes, kRegisters, kUnregisters, kDies, kWaits };

struct Operation {
    Act act = Act::kGet;
    Reaction reaction = Reaction::kNone;
    Nanos pause{0};       // before it
    uint32_t number = 0;  // no other operation of the world has it
};

struct Client {
    std::vector<Operation> operations;
};

// The hosting component's life: from its start until it stops.
struct Session {
    bool updateMcu = true, loadFpga = true;
    bool isNewProcess = true;     // the library's variables are as they were loaded
    unsigned requestsAtOnce = 0;  // 0: no limit
    std::vector<Client> clients;
};

// What happens to the board from outside, at a time since power-on.
struct Disturbance {
    enum class Kind { kMcuReset, kLateAnswer, kMcuFallsSilent, kMcuSpeaksAgain, kUnasked };
    Kind kind = Kind::kMcuReset;
    Nanos at{0};
};

// From power-on to power-off, or to a cut.
struct Boot {
    uint64_t seed = 1;  // of the order of threads and of the chances
    board::Pct pct;
    uint64_t drawnSteps = UINT64_MAX;
    board::ChanceRates chances;
    board::NoiseRates noise;
    std::vector<board::Fault> faults;
    std::vector<Disturbance> disturbances;
    std::optional<board::PowerCut> cut;
    bool networkIsUp = true;
    std::vector<Session> sessions;

    // False: an answer may get lost or be another one, a call may fail.
    bool linkIsClean() const;
};

// With the damaged ones a board may come up or not, but nothing may break.
enum class ProductFile { kFactory, kOtherLook, kLineLost, kValueWrong, kCutOff, kNoise };
enum class Screen { kFactory, kMissing, kEmpty, kTruncated, kNoise };

struct World {
    uint64_t seed = 0;
    board::Product product = board::Product::kHeron;
    board::McuKind part = board::McuKind::kGd32F303;
    size_t mcuImage = 2048, fpgaImage = 4096;  // bytes
    bool mcuIsOlder = false;                   // than what ships
    bool mcuIsBlank = false;
    bool fpgaIsPending = false;
    ProductFile productFile = ProductFile::kFactory;
    Screen screen = Screen::kFactory;
    std::string logLevel = "E";
    std::string selfTestItems = "1-2-3-5", codecs = "1";
    std::string parts;        // the board's file of that name: what is broken
    std::vector<Boot> boots;  // the last one is clean: it has to mend what the others left

    bool isDescribed() const { return productFile <= ProductFile::kOtherLook; }
};

inline constexpr char kShippedMcu[] = "V1.0.0", kOlderMcu[] = "V0.9.0";
inline constexpr char kShippedFpga[] = "V2.0.0", kOlderFpga[] = "V1.0.0";

World worldOf(uint64_t seed);

const char* nameOf(Act);
const char* nameOf(Reaction);
const char* nameOf(Disturbance::Kind);
const char* nameOf(ProductFile);
const char* nameOf(Screen);
// The world as numbered steps.
std::string describe(const World&);

}  // namespace quil::swarm
