// A serial port: byte times from the line's settings, the kernel's buffers, the host's termios, and
// the device at the other end of the wire.
#pragma once

#include <stdint.h>
#include <termios.h>

#include <array>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "board/core/services.h"
#include "board/devices/line_noise.h"

namespace quil::board {

struct LineSettings {
    int baud = 9600;
    uint8_t dataBits = 8;
    char parity = 'N';
    uint8_t stopBits = 1;
    int frameBits() const { return 1 + dataBits + (parity == 'N' ? 0 : 1) + stopBits; }
    Nanos byteTime() const { return Nanos(baud > 0 ? 1'000'000'000LL * frameBits() / baud : 0); }
};
LineSettings settingsOf(const termios&);
// A listener whose settings do not agree with the sender's samples the wrong bits.
bool agree(const LineSettings&, const LineSettings&);
uint8_t garbled(uint8_t byte);

// One byte that goes wrong on the line. `byte` is its number in its direction; the next byte after
// the fault is added has the number 0.
struct LineFault {
    enum class Kind {
        kCorrupt,  // its bits of `value` are inverted
        kLost,     // it never arrives
        kExtra,    // `value` arrives before it
        kLate,     // it takes `delay` longer
    };
    Kind kind;
    bool fromHost;
    size_t byte = 0;
    uint8_t value = 0x01;
    Nanos delay{0};
};

// The device at the other end of the wire.
class UartPeer {
  public:
    virtual ~UartPeer() = default;
    virtual void receive(uint8_t byte) = 0;  // at the end of the byte's stop bit
    virtual LineSettings lineSettings() const = 0;
};

// A second host at the line: a program outside of the board. Called with the board's lock held; it
// must not wait.
class OutsideHost {
  public:
    virtual ~OutsideHost() = default;
    virtual void hear(uint8_t byte, const LineSettings& sender) = 0;
    virtual void sent() = 0;  // nothing of it is on the way any more
};

class Uart {
  public:
    static constexpr size_t kBuffer = 4096;

    Uart(BoardServices&, std::string path);
    ~Uart();
    Uart(const Uart&) = delete;
    Uart& operator=(const Uart&) = delete;

    // For tests.
    const std::string& path() const { return mPath; }
    int baud() const;
    std::string mode() const;  // "8N1"
    void unplug();             // the device is gone: EIO, and end of file to readers
    void addFault(const LineFault&);
    void addNoise(uint64_t seed, const NoiseRates&);  // in both directions, from now on
    std::vector<uint8_t> sentByHost() const;          // recorded, every byte accepted by write()
    size_t bytesOnTheWay() const;                     // accepted by write(), not yet at the peer

    // For the peer.
    void attach(UartPeer*);
    void sendToHost(const std::vector<uint8_t>&);
    LineSettings hostLine() const { return mHeard->line; }  // of the host that it heard last

    // One for the board's time. It hears what the peer sends; what both hosts send at a time goes
    // out one after the other.
    void attachOutside(OutsideHost*);
    // Returns how many bytes of it are on the way; 0 when they are lost: the line is dead.
    size_t sendFromOutside(const std::vector<uint8_t>&, const LineSettings&);

    // For the C library calls.
    bool plugged() const { return mPlugged; }
    int getattr(termios*) const;
    int setattr(const termios&);
    int flush(int queue);
    ssize_t hostWrite(const uint8_t* data, size_t count, bool nonBlocking);
    ssize_t hostRead(uint8_t* data, size_t count, bool nonBlocking);
    bool readable() const;
    bool writable() const;
    void opened();
    void closed();

    void powerLost();

  private:
    struct Sender {
        std::deque<uint8_t> bytes{};
        LineSettings line{};
        bool isReady() const { return !bytes.empty() && line.baud != 0; }
    };

    void note(EventKind, const std::string& text, std::vector<uint8_t> bytes = {});
    void noteByte(Nanos start, const LineSettings&, bool fromHost, uint8_t byte);
    void startTransmit();
    void transmitted();
    void forgetBytes();
    void startReceive();
    void received();
    void keep(uint8_t byte);
    bool waitForInput(size_t need, bool nonBlocking);
    // With the faults of the line: the bytes that arrive for a byte sent, and how much later.
    std::vector<uint8_t> arriving(bool fromHost, uint8_t byte);
    bool isFaulty() const { return !mFaults.empty() || mNoise.has_value(); }
    Nanos lateness(bool fromHost) const;
    uint8_t asHeardAt(const LineSettings& sender, const LineSettings& listener, uint8_t byte);

    BoardServices& mBoard;
    const std::string mPath;
    UartPeer* mPeer = nullptr;
    termios mSettings{};
    Sender mHost, mFromOutside;
    Sender* mSending = &mHost;      // whose turn it is
    const Sender* mHeard = &mHost;  // whose byte the peer has heard last
    OutsideHost* mOutside = nullptr;
    bool mPlugged = true;
    int mOpenCount = 0;
    std::deque<uint8_t> mRx, mIncoming;
    std::vector<uint8_t> mSent, mBurst;
    std::vector<LineFault> mFaults;
    std::optional<LineNoise> mNoise;
    std::array<size_t, 2> mPassed{};  // bytes transferred: to the host, from the host
    bool mTransmitting = false, mReceiving = false;
};

}  // namespace quil::board
