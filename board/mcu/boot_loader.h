// What the boot-loader models share: what they need of the part around them, and the faults that
// they can be given.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "board/devices/uart.h"
#include "board/mcu/mcu_flash.h"

namespace quil::board {

// The part around a boot loader. Nothing that was put off outlives a reset.
class McuSurroundings {
  public:
    virtual ~McuSurroundings() = default;
    virtual Nanos now() const = 0;
    virtual void after(Nanos delay, std::function<void()>) = 0;
    virtual void send(std::vector<uint8_t>) = 0;  // to the host, a byte after another
    virtual LineSettings hostLine() const = 0;    // what a part measures at synchronisation
    virtual void note(const std::string&) = 0;
    virtual void violation(const std::string&) = 0;
    // A flash operation: `start` begins it and returns how long it takes, `done` is called at its
    // end with what broke the rules ("": nothing).
    virtual void operate(const std::string& what, std::function<Nanos(McuFlash&)> start,
                         std::function<void(const std::string& broken)> done) = 0;
    virtual void resetBySoftware() = 0;
    virtual void jumpTo(uint32_t address) = 0;
};

// Where in a command a boot loader can be made to fail.
enum class LoaderStep {
    kSync,      // 0x7F
    kCommand,   // the command's code, or a whole N32 frame
    kAddress,   // of a read, a write or a jump
    kCount,     // of a read
    kData,      // of a write or an erase: received and good, not acted on yet
    kFinished,  // acted on, to be acknowledged
};

struct LoaderFault {
    enum class Kind {
        kSilent,  // the step is not taken and nothing is said; the command is over
        kNack,    // the step is refused; the command is over
        kLate,    // the answer comes `delay` later
        kHangs,   // nothing is done or said from here on, until the next reset
    };
    Kind kind = Kind::kSilent;
    std::optional<uint8_t> command = {};  // of which command; none: of any, and of kSync
    std::optional<LoaderStep> step = {};  // at which step; none: at any
    int after = 0;                        // such steps let through first
    int times = 1;                        // -1: for ever
    Nanos delay{0};
};

class LoaderFaults {
  public:
    void add(const LoaderFault&);
    void clear();
    std::optional<LoaderFault> take(uint8_t command, LoaderStep);

  private:
    std::vector<LoaderFault> faults_;
};

const char* nameOf(LoaderStep);

// One boot loader, from one reset to the next.
class BootLoader : public UartPeer {
  public:
    virtual void start() = 0;
};

// The one that the flash's part has.
std::unique_ptr<BootLoader> makeBootLoader(McuFlash&, McuSurroundings&, LoaderFaults&);

}  // namespace quil::board
