// A real serial device with an MCU behind it, in place of the board's own.
#pragma once

#include <string>

#include "board/board.h"

namespace quil::tools {

// Which modem line of the device drives a GPIO line of the MCU. "rts" and "dtr" are set while the
// GPIO line is 1, "-rts" and "-dtr" while it is 0; "none": somebody else sees to it.
struct ModemWiring {
    std::string boot0 = "none";
    std::string nrst = "none";
};

// The device answers under its own path for as long as this lives, and the board's MCU_BOOT0 and
// MCU_NRST drive the modem lines. Needs a board in real time.
class LentPort {
  public:
    // Throws std::runtime_error when the device cannot be had.
    LentPort(board::Board& board, const std::string& path, const ModemWiring& wiring,
             board::Board::DeviceGate gate = nullptr);
    ~LentPort();
    LentPort(const LentPort&) = delete;
    LentPort& operator=(const LentPort&) = delete;

  private:
    void wire(board::GpioLine& gpio, const std::string& modemLine);

    int mDevice = -1;
};

}  // namespace quil::tools
