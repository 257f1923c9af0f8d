// Everything that happens on the board, in order, stamped with board time.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

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
    Nanos bit;  // how long one bit lasts
    bool fromHost;
    uint8_t value;
    uint8_t dataBits;
    char parity;  // 'N', 'E' or 'O'
    uint8_t stopBits;
};

class Trace {
  public:
    Trace();
    ~Trace();
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;

    std::vector<Event> events() const;
    std::vector<Event> events(EventKind) const;
    void add(EventKind, std::string source, std::string text, std::vector<uint8_t> bytes = {});
    void addWireByte(const WireByte&);
    // Called with every event from now on, on the thread that caused it. It may print, not wait.
    void onEvent(std::function<void(const Event&)>);
    // With recording off nothing is kept and nobody is told: for runs too long to remember.
    void setRecording(bool);
    bool recording() const;
    void clear();

    std::string toText() const;  // one line an event
    void writeText(const std::filesystem::path&) const;
    void writeVcd(const std::filesystem::path&) const;
    void writeTraceEventJson(const std::filesystem::path&) const;

  private:
    std::vector<Event> events_;
    std::vector<WireByte> wire_;
    std::vector<std::function<void(const Event&)>> listeners_;
    bool recording_ = true;
};

const char* nameOf(EventKind);
std::string toLine(const Event&);  // as in Trace::toText, without the line end

}  // namespace quil::board
