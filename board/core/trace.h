// Everything that happens on the board, in order, stamped with board time.
#pragma once

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "board/core/bytes.h"

namespace quil::board {

using Micros = std::chrono::microseconds;
using Nanos = std::chrono::nanoseconds;

enum class EventKind {
    kPower,
    kOpen,
    kClose,
    kUartTx,
    kUartRx,
    kFrame,
    kGpio,
    kShell,
    kSleep,
    kLog,
    kRequest,
    kProperty,
    kFault,
    kViolation,
    kNote,
    kProbe,
    kSpi,
    kFlash,   // an erase or a programming of a flash
    kVendor,  // a call into a closed library
    kMcu      // what runs on the microcontroller
};

// Where power is cut: at the event with this number, counted from 0 at power-on. Before: the event
// does not happen. Inside: an operation that takes time (of a flash) is done in part; any other
// event does not happen. After: the event happens, and nothing follows it.
enum class CutPosition { kBefore, kInside, kAfter };
const char* nameOf(CutPosition);  // "before", "inside", "after"
struct PowerCut {
    uint64_t event;
    CutPosition position;
    unsigned tear = 0;  // inside: how much is done (Tear)
};

struct Event {
    Nanos at;
    EventKind kind;
    std::string source;  // the device or path, the tag of a log line
    std::string text;
    std::vector<uint8_t> bytes;
};

// One byte on a serial line, as a logic analyser would see it.
struct WireByte {
    Nanos start;
    int baud;
    bool fromHost;
    uint8_t value;
    uint8_t dataBits;
    char parity;  // 'N', 'E' or 'O'
    uint8_t stopBits;
};

// One transfer on the SPI lines to the FPGA. Of what is not received the line is low.
struct SpiTransfer {
    Nanos start, byteTime;
    std::vector<uint8_t> sent, received;
};

class Power;
class Scheduler;
class Store;

// Gets each place at which power could be cut. `last`, if any, does what an operation does up to
// there, in the store.
using CutProbe = std::function<void(const PowerCut&, const std::function<void(Store&)>& last)>;

class Trace {
  public:
    Trace(const Scheduler&, Power&);
    ~Trace();
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

    std::vector<Event> events() const;
    std::vector<Event> events(EventKind) const;
    // Records what is about to happen, if there is power. Returns where power is cut if it is cut
    // at this event: a part with a non-volatile memory then does part of its work or none.
    std::optional<CutPosition> add(EventKind, std::string source, std::string text,
                                   std::vector<uint8_t> bytes = {});
    // Records what somebody who watches has to say. It does not happen on the board: it is no place
    // to cut the power at, and listeners may say it.
    void remark(EventKind, std::string source, std::string text, std::vector<uint8_t> bytes = {});
    uint64_t count() const;  // events since power-on, also those not recorded
    void cutPowerAt(PowerCut);
    // Cuts the power if the last event was the one to cut after. Called before anything new
    // happens.
    void cutIfDue();
    bool cutIsDue() const { return mDue || mWhy != nullptr; }
    // How much of the operation that power is cut inside is done.
    Tear tear() const { return {mCount, mCut ? mCut->tear : 0}; }

    // From now on nothing is cut, but each cut that there could be is told; null: no longer.
    void probeCuts(CutProbe);
    // For a part whose operation takes time, after its event: `operate` does in a store what is
    // done of it when power is cut inside or after.
    void probeOperation(const std::function<void(Store&, CutPosition, Tear)>& operate);
    // Cuts the power as soon as anything new happens, whose record begins with `why`. From any
    // thread, without the board's lock.
    void cutSoon(const char* why);
    void addWireByte(const WireByte&);
    void addSpiTransfer(SpiTransfer);
    // Called with every event from now on, on the thread that caused it. It must not wait.
    void onEvent(std::function<void(const Event&)>);
    size_t listeners() const;
    void keepListeners(size_t first);  // only so many of them, those that came first
    // Without recording, events are only counted: for runs whose events would not fit the memory.
    void setRecording(bool);
    bool recording() const;
    // Empties the record, and calls what was given to onClear: parts empty records of their own.
    void clear();
    void onClear(std::function<void()>);

    std::string toText() const;  // one line for each event
    std::string toVcd() const;   // the lines, for waveform viewers

  private:
    void record(Event);

    const Scheduler& mScheduler;
    Power& mPower;
    std::vector<Event> mEvents;
    std::vector<WireByte> mWire;
    std::vector<SpiTransfer> mSpi;
    std::vector<std::function<void(const Event&)>> mListeners;
    std::vector<std::function<void()>> mOnClear;
    bool mRecording = true;
    uint64_t mCount = 0;
    std::optional<PowerCut> mCut;
    CutProbe mProbe;
    std::atomic<bool> mDue{false};
    std::atomic<const char*> mWhy{nullptr};  // why power is cut from outside; null: it is not
};

const char* nameOf(EventKind);
std::string toLine(const Event&);  // as in Trace::toText, without the line end

}  // namespace quil::board
