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
    static constexpr int kPublishedFastest = 115200;  // bit/s

    virtual ~McuSurroundings() = default;
    virtual Nanos now() const = 0;
    virtual void after(Nanos delay, std::function<void()>) = 0;
    virtual void send(std::vector<uint8_t>) = 0;  // to the host
    virtual LineSettings hostLine() const = 0;    // what a part measures at synchronisation
    virtual int fastestRate() const { return kPublishedFastest; }  // that an AN3155 part measures
    virtual void note(const std::string&) = 0;
    virtual void violation(const std::string&) = 0;
    // A flash operation: `start` begins it and returns how long it takes, `done` is called at its
    // end with the rule of the flash that it broke ("": none).
    virtual void operate(const std::string& what, std::function<Nanos(McuFlash&)> start,
                         std::function<void(const std::string& broken)> done) = 0;
    // Bytes of an answer that are still on their way go out first. Tears a flash operation.
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

// One fault of a boot loader, for tests and tools:
//
//   board.mcuChip().loaderFaults().add({.kind = LoaderFault::Kind::kDamagedAck,
//                                       .command = 0x31,                // of the writes
//                                       .step = LoaderStep::kFinished,  // the last answer
//                                       .after = 99});                  // the hundredth
//
// `command` and `step` choose the steps that count; a write of an AN3155 part is the steps
// kCommand, kAddress, kData, kFinished, a read is kCommand, kAddress, kCount. An N32 command is
// kCommand and kFinished. A fault that changes an answer changes the next one that the part sends.
// Cells that are worn for good are McuFlash::wear, noise on the line is Uart::addNoise.
struct LoaderFault {
    enum class Kind {
        kSilent,      // no answer, and the command ends
        kNack,        // the answer is NACK, and the command ends
        kLate,        // the answer comes `delay` later; the part hears what comes meanwhile
        kHangs,       // no reaction to anything until the next reset
        kAckLost,     // the answer lacks its first byte, and the command goes on
        kJunk,        // `value` (0x00) comes before the answer
        kDamagedAck,  // the answer's ACK is `value` (0xBC); of an N32, its status 0xA0
        kBusy,        // the part is busy for `delay`, and answers then
        kFlippedBit,  // in byte `at` behind the ACK the bits of `value` (0x01) are inverted
        kShortReply,  // the answer lacks its last byte
        kWrongCell,   // kData, for an N32 kCommand: the first data byte from `at` on that has one
                      // of the bits of `value` (0x01) loses them in the flash
        kReset,       // the part resets; at the step before a flash operation: in its middle
    };
    Kind kind = Kind::kSilent;
    std::optional<uint8_t> command = {};  // nothing: any command, and kSync
    std::optional<LoaderStep> step = {};  // nothing: any step
    int after = 0;                        // so many matching steps succeed first
    int times = 1;                        // -1: for ever
    Nanos delay{0};
    size_t at = 0;
    std::optional<uint8_t> value = {};  // nothing: as given in brackets above
};

// A fault that the next answer, or the next flash operation, will show.
class PendingFault {
  public:
    void set(const LoaderFault& fault) { mFault = fault; }
    void forget() { mFault.reset(); }
    struct Lateness {
        Nanos delay{0};
        bool deaf = false;  // until the answer goes out
    };
    // Changes the answer whose ACK and data stand at these places.
    Lateness apply(std::vector<uint8_t>& answer, size_t ackAt, size_t dataAt);
    void spoil(std::vector<uint8_t>& programmed);  // kWrongCell
    bool takeReset();                              // kReset

  private:
    bool is(LoaderFault::Kind kind) const { return mFault && mFault->kind == kind; }

    std::optional<LoaderFault> mFault;
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
