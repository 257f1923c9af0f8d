// What the programmer needs of a serial line. There are three calls that act on it: write, read,
// lines; a real port, a pseudo terminal and the simulated board each have an adapter.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <span>
#include <stdexcept>
#include <vector>

namespace quil::programmer {

using Nanos = std::chrono::nanoseconds;
using Bytes = std::vector<uint8_t>;

// 8 data bits, 1 stop bit.
struct LineMode {
    int baud = 115200;
    char parity = 'E';  // 'E', 'O' or 'N'

    int frameBits() const { return parity == 'N' ? 10 : 11; }
    Nanos timeOf(size_t bytes) const {
        return Nanos(1'000'000'000LL * frameBits() * static_cast<long long>(bytes) / baud);
    }
};

// The port itself fails: unplugged, no permission.
class PortError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Transport {
  public:
    virtual ~Transport() = default;

    // Sends all bytes. Throws PortError.
    virtual void write(std::span<const uint8_t> bytes) = 0;
    // Returns when `into` is full, or at the deadline with what has come. Without room it waits for
    // the deadline. Throws PortError.
    virtual size_t read(std::span<uint8_t> into, Nanos deadline) = 0;
    // Drives BOOT0 and NRST. False when nothing is wired to NRST.
    virtual bool lines(bool boot0, bool nrst) = 0;

    // Forgets what was received before.
    virtual void setMode(const LineMode& mode) = 0;
    virtual Nanos now() const = 0;  // the clock of the deadlines
};

}  // namespace quil::programmer
