// What the boot-loader models have in common: the interface to the part around them, and their
// faults.
#pragma once

#include <stdint.h>

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "board/devices/uart.h"
#include "board/mcu/mcu_flash.h"

namespace quil::board {

// The part around a boot loader. A reset drops all delayed actions.
class McuSurroundings {
  public:
    virtual ~McuSurroundings() = default;
    virtual Nanos now() const = 0;
    virtual void after(Nanos delay, std::function<void()>) = 0;
    virtual void send(std::vector<uint8_t>) = 0;  // to the host
    virtual LineSettings hostLine() const = 0;    // what a part measures at synchronisation
    virtual void note(const std::string&) = 0;
    virtual void violation(const std::string&) = 0;
    // A flash operation: `start` begins it and returns how long it takes, `done` is called at its
    // end with the rule of the flash that it broke ("": none).
    virtual void operate(const std::string& what, std::function<Nanos(McuFlash&)> start,
                         std::function<void(const std::string& broken)> done) = 0;
    virtual void resetBySoftware() = 0;
    virtual void jumpTo(uint32_t address) = 0;
};

// The steps of a command at which a fault can be injected.
enum class LoaderStep {
    kSync,      // 0x7F
    kCommand,   // the command's code; for the N32 a whole frame
    kAddress,   // of a read, a write or a jump
    kCount,     // of a read
    kData,      // of a write or an erase: received and valid, not executed yet
    kFinished,  // executed, not acknowledged yet
};

struct LoaderFault {
    enum class Kind {
        kSilent,  // no answer, and the command ends
        kNack,    // the answer is NACK, and the command ends
        kLate,    // the answer comes `delay` later
        kHangs,   // no reaction to anything until the next reset
    };
    Kind kind = Kind::kSilent;
    std::optional<uint8_t> command = {};  // nothing: any command, and kSync
    std::optional<LoaderStep> step = {};  // nothing: any step
    int after = 0;                        // so many matching steps succeed first
    int times = 1;                        // -1: for ever
    Nanos delay{0};
};

class LoaderFaults {
  public:
    void add(const LoaderFault&);
    void clear();
    std::optional<LoaderFault> take(uint8_t command, LoaderStep);

  private:
    std::vector<LoaderFault> mFaults;
};

const char* nameOf(LoaderStep);

// One boot loader, from one reset to the next.
class BootLoader : public UartPeer {
  public:
    virtual void start() = 0;
};

// The boot loader of the flash's part.
std::unique_ptr<BootLoader> makeBootLoader(McuFlash&, McuSurroundings&, LoaderFaults&);

}  // namespace quil::board
