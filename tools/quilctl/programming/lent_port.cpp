#include "tools/quilctl/programming/lent_port.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <stdexcept>

namespace quil::tools {
namespace {

void drive(int device, int modemBit, bool isSet) {
    ioctl(device, isSet ? TIOCMBIS : TIOCMBIC, &modemBit);
}

}  // namespace

LentPort::LentPort(board::Board& board, const std::string& path, const ModemWiring& wiring,
                   board::Board::DeviceGate gate) {
    board.lendDevice(path, std::move(gate));
    mDevice = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (mDevice < 0) throw std::runtime_error(path + ": " + strerror(errno));
    wire(board.gpio().at(board::kGpioNrst), wiring.nrst);
    wire(board.gpio().at(board::kGpioBoot0), wiring.boot0);
}

LentPort::~LentPort() { close(mDevice); }

// Called before the session: the line takes the level that the GPIO line has now.
void LentPort::wire(board::GpioLine& gpio, const std::string& modemLine) {
    if (modemLine == "none") return;
    const bool isInverted = modemLine.front() == '-';
    const int bit = modemLine.substr(isInverted ? 1 : 0) == "rts" ? TIOCM_RTS : TIOCM_DTR;
    const auto follow = [device = mDevice, bit, isInverted](int level) {
        drive(device, bit, (level != 0) != isInverted);
    };
    follow(gpio.level());
    gpio.onEdge(follow);
}

}  // namespace quil::tools
