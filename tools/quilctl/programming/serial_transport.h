// A serial device as the programmer's transport: of this workstation, or the simulated board's,
// which answers the same calls.
#pragma once

#include <termios.h>

#include <functional>
#include <string>

#include "programmer/transport.h"
#include "tools/quilctl/programming/lent_port.h"

namespace quil::tools {

class SerialTransport : public programmer::Transport {
  public:
    // Drives BOOT0 and NRST to these levels; false when NRST is not wired.
    using Lines = std::function<bool(bool boot0, bool nrst)>;

    SerialTransport(const std::string& path, Lines lines);  // throws programmer::PortError
    ~SerialTransport() override;
    SerialTransport(const SerialTransport&) = delete;
    SerialTransport& operator=(const SerialTransport&) = delete;

    void write(std::span<const uint8_t> bytes) override;
    size_t read(std::span<uint8_t> into, programmer::Nanos deadline) override;
    bool lines(bool boot0, bool nrst) override { return mLines(boot0, nrst); }
    void setMode(const programmer::LineMode& mode) override;
    programmer::Nanos now() const override;

    int descriptor() const { return mDevice; }

  private:
    void apply(const termios& settings) const;
    size_t take(std::span<uint8_t> into);
    bool waitFor(programmer::Nanos deadline) const;
    void waitOut(programmer::Nanos deadline) const;
    [[noreturn]] void fail(const char* what) const;

    const std::string mPath;
    Lines mLines;
    int mDevice;
    programmer::LineMode mMode;
};

// Keeps this machine's cores from sleeping deeply, as long as it lives and where the kernel lets
// this user ask for it (mostly root): each exchange with a part waits for a core to wake.
class WakefulCores {
  public:
    WakefulCores();
    ~WakefulCores();
    WakefulCores(const WakefulCores&) = delete;
    WakefulCores& operator=(const WakefulCores&) = delete;

  private:
    int mRequest;  // holds while the file is open
};

// The board's sysfs files of MCU_BOOT0 and MCU_NRST.
SerialTransport::Lines boardLines();
// The modem lines of the device.
SerialTransport::Lines modemLines(const std::string& path, const ModemWiring& wiring);

}  // namespace quil::tools
