#include "isp/serial_port.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include "common/log.h"
#include "common/monotonic_clock.h"
#include "common/pause.h"

using quil::common::kFirmwareUpdateTag;
using quil::common::monotonicMs;
using quil::isp::kReadComplete;
using quil::isp::kReadTimedOut;

int32_t fd = -1;

namespace {

struct BaudRate {
    unsigned rate;
    speed_t speed;
};
// No other rate is accepted: the boot loaders in the field use no other.
constexpr BaudRate kBaudRates[] = {
    {50, B50},       {75, B75},         {110, B110},       {134, B134},         {150, B150},
    {200, B200},     {300, B300},       {600, B600},       {1200, B1200},       {1800, B1800},
    {2400, B2400},   {4800, B4800},     {9600, B9600},     {19200, B19200},     {38400, B38400},
    {57600, B57600}, {115200, B115200}, {230400, B230400}, {1000000, B1000000},
};

constexpr int kWriteFailed = 2, kSelectFailed = 4, kSelectTimedOut = 5;
constexpr int kIdleRounds = 100, kIdleRoundMs = 10, kSelectIdleReads = 10;
// For how long without a byte a failed read is repeated.
constexpr int64_t kFailingMostMs = 10000;

constexpr int kBadDataBits = -1, kBadParity = -2, kBadStopBits = -3, kNotSet = -4;

// What mcu_serial_read_select waits with; rewritten at each call.
fd_set g_readSet;
timeval g_selectTimeout;

const BaudRate* rowOf(unsigned baud) {
    for (const BaudRate& row : kBaudRates) {
        if (row.rate == baud) return &row;
    }
    return nullptr;
}

void clearFlags(tcflag_t& flags, tcflag_t which) { flags &= ~which; }

bool setDataBits(termios& port, int databits) {
    if (databits != 7 && databits != 8) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "TTY: Invalid databits value %d.\n", databits);
        return false;
    }
    clearFlags(port.c_cflag, CSIZE);
    port.c_cflag |= databits == 8 ? CS8 : CS7;
    return true;
}

// Only 'S' checks parity on input; even and odd parity send a bit and do not look at the one that
// comes back. Sessions rely on it: they run with odd parity against boot loaders that send even.
bool setParityBit(termios& port, int parity) {
    switch (parity) {
        case 'N':
        case 'n':
            clearFlags(port.c_cflag, PARENB);
            return true;
        case 'E':
        case 'e':
            port.c_cflag |= PARENB;
            clearFlags(port.c_cflag, PARODD);
            return true;
        case 'O':
        case 'o':
            port.c_cflag |= PARENB | PARODD;
            return true;
        case 'S':
        case 's':
            clearFlags(port.c_cflag, PARENB);
            port.c_iflag |= INPCK;
            return true;
        default:
            QUIL_LOG_ERROR(kFirmwareUpdateTag, "TTY: Invalid parity value %c.\n", parity);
            return false;
    }
}

bool setStopBits(termios& port, int stopbits) {
    if (stopbits != 1 && stopbits != 2) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "TTY: Invalid stopbits value %d.\n", stopbits);
        return false;
    }
    clearFlags(port.c_cflag, CSTOPB);
    if (stopbits == 2) port.c_cflag |= CSTOPB;
    return true;
}

void setRaw(termios& port) {
    clearFlags(port.c_iflag, IXON | IXOFF | IXANY | ICRNL | INLCR);
    clearFlags(port.c_oflag, OPOST);
    clearFlags(port.c_lflag, ISIG | ICANON | ECHO | ECHOE);
    clearFlags(port.c_cflag, CRTSCTS);
    port.c_cflag |= CLOCAL | CREAD;
    port.c_cc[VTIME] = 0;
    port.c_cc[VMIN] = 0;
}

enum class Got { kBytes, kNothing, kFailure, kNever };

// One read of what is still missing; adds what came to `got`.
Got readMore(uint8_t* buf, int len, int& got) {
    if (fd < 0 || buf == nullptr) return Got::kNever;
    const ssize_t count = read(fd, buf + got, static_cast<size_t>(len - got));
    if (count > 0) {
        got += static_cast<int>(count);
        return Got::kBytes;
    }
    if (count == 0) return Got::kNothing;
    switch (errno) {
        case EIO:  // the port has been unplugged: counts as an idle round
        case ENXIO:
        case ENODEV:
            return Got::kNothing;
        case EBADF:
            return Got::kNever;
        default:
            return Got::kFailure;
    }
}

// Reads until `len` bytes are in. `idle` counts the reads that found nothing, over the whole call,
// each followed by a pause; gives up after `idleMost` of them.
bool readAll(uint8_t* buf, int len, int idleMost, unsigned pauseMs, int& got, int& idle) {
    int64_t lastByteMs = monotonicMs();
    while (got < len) {
        switch (readMore(buf, len, got)) {
            case Got::kBytes:
                lastByteMs = monotonicMs();
                break;
            case Got::kNothing:
                if (pauseMs > 0) quil::common::pauseMs(pauseMs);
                if (++idle >= idleMost) return false;
                break;
            case Got::kFailure:
                if (monotonicMs() - lastByteMs >= kFailingMostMs) return false;
                break;
            case Got::kNever:
                return false;
        }
    }
    return true;
}

}  // namespace

namespace quil::isp {

int writeToPort(const uint8_t* data, size_t count) {
    const auto result = static_cast<int>(write(fd, data, count));
    if (result < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: write error. \n", "mcu_serial_write");
    }
    return result;
}

}  // namespace quil::isp

int mcu_serial_init(const char* path, int baud, int databits, int stopbits, int parity) {
    fd = path != nullptr ? open(path, O_RDWR | O_NOCTTY | O_NONBLOCK) : -1;
    if (fd < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: Open serial port %s failed.\n", __func__,
                       path != nullptr ? path : "(null)");
        return -1;
    }
    if (mcu_set_baudrate(fd, static_cast<unsigned>(baud)) < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: mcu_set_baudrate failed.\n", __func__);
        return -1;
    }
    if (mcu_set_parity(fd, databits & 0xFF, stopbits & 0xFF, parity) < 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: mcu_set_parity failed.\n", __func__);
        return -1;
    }
    return 0;
}

int mcu_set_baudrate(int fd, unsigned baud) {
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "%s: set baudrate: %u.\n", __func__, baud);
    termios port = {};
    if (tcgetattr(fd, &port) != 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: Error getting attribute (baudrate) of tty.\n",
                       __func__);
        return -1;
    }
    const BaudRate* row = rowOf(baud);
    if (row == nullptr) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: Invalid baudrate value: %u.\n", __func__, baud);
        return -1;
    }
    tcflush(fd, TCIOFLUSH);
    cfsetispeed(&port, row->speed);
    cfsetospeed(&port, row->speed);
    if (tcsetattr(fd, TCSANOW, &port) != 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: set baudrate failed.\n", __func__);
        return -1;
    }
    tcflush(fd, TCIOFLUSH);
    return 0;
}

int mcu_set_parity(int fd, int databits, int stopbits, int parity) {
    termios port = {};
    if (tcgetattr(fd, &port) != 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag, "TTY: Error getting attribute (parity) of tty.\n");
        return -1;
    }
    if (!setDataBits(port, databits)) return kBadDataBits;
    if (!setParityBit(port, parity)) return kBadParity;
    if (!setStopBits(port, stopbits)) return kBadStopBits;
    setRaw(port);
    tcflush(fd, TCIFLUSH);
    if (tcsetattr(fd, TCSANOW, &port) != 0) {
        QUIL_LOG_ERROR(kFirmwareUpdateTag,
                       "TTY: Error setting attribute (databits, parity, stopbits) of tty.\n");
        return kNotSet;
    }
    return 0;
}

int mcu_serial_close(void) { return close(fd); }

int mcu_serial_write(const uint8_t* buf, unsigned count) {
    const int written = quil::isp::writeToPort(buf, count);
    return written < 0 ? kWriteFailed : written;
}

int mcu_serial_read(void* buf, int len) {
    int got = 0, idle = 0;
    if (readAll(static_cast<uint8_t*>(buf), len, kIdleRounds, kIdleRoundMs, got, idle)) {
        return kReadComplete;
    }
    QUIL_LOG_ERROR(kFirmwareUpdateTag, "%s: read fd(%d) %d Bytes  %d times! \n", __func__, fd, got,
                   idle);
    return kReadTimedOut;
}

int mcu_serial_read_select(uint8_t* buf, int len) {
    FD_ZERO(&g_readSet);
    g_selectTimeout = {1, 0};
    const bool fitsTheSet = fd >= 0 && fd < FD_SETSIZE;
    if (fitsTheSet) FD_SET(fd, &g_readSet);
    const int ready =
        fitsTheSet ? select(fd + 1, &g_readSet, nullptr, nullptr, &g_selectTimeout) : -1;
    if (ready < 0) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "mcu_serial_read select error.\n");
        return kSelectFailed;
    }
    if (ready == 0) {
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "mcu_serial_read select timeout error.\n");
        return kSelectTimedOut;
    }
    if (!FD_ISSET(fd, &g_readSet)) return ready;
    int got = 0, idle = 0;
    if (readAll(buf, len, kSelectIdleReads, 0, got, idle)) return ready;
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, "read fd(%d) 0 Bytes  %d times! \n", fd, idle);
    return kReadTimedOut;
}
