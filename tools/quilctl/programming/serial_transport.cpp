#include "tools/quilctl/programming/serial_transport.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

namespace quil::tools {
namespace {

using programmer::LineMode;
using programmer::Nanos;
using programmer::PortError;

struct Speed {
    int baud;
    speed_t code;
};
constexpr std::array<Speed, 9> kSpeeds = {{{9600, B9600},
                                           {19200, B19200},
                                           {38400, B38400},
                                           {57600, B57600},
                                           {115200, B115200},
                                           {230400, B230400},
                                           {460800, B460800},
                                           {921600, B921600},
                                           {1000000, B1000000}}};

constexpr Nanos kLead = std::chrono::microseconds(500);  // so late may a sleep end

speed_t codeOf(int baud) {
    const auto* row = std::find_if(kSpeeds.begin(), kSpeeds.end(),
                                   [baud](const Speed& speed) { return speed.baud == baud; });
    if (row == kSpeeds.end()) throw PortError("no rate of " + std::to_string(baud) + " bit/s");
    return row->code;
}

// False when a signal ended it.
bool sleepFor(Nanos time) {
    if (time <= Nanos(0)) return true;
    return usleep(static_cast<useconds_t>((time.count() + 999) / 1000)) == 0;
}

bool writeLevel(const char* name, bool level) {
    const std::string path = std::string("/sys/class/quilgpios/") + name + "/value";
    const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (file < 0) return false;
    const bool isDone = ::write(file, level ? "1" : "0", 1) == 1;
    close(file);
    return isDone;
}

// By its number: Linux has given it to these ports for good.
bool isPseudoTerminal(int device) {
    constexpr unsigned kFirstMajor = 136, kLastMajor = 143;
    struct stat info {};
    if (fstat(device, &info) != 0 || !S_ISCHR(info.st_mode)) return false;
    return major(info.st_rdev) >= kFirstMajor && major(info.st_rdev) <= kLastMajor;
}

void driveModem(int device, const std::string& modemLine, bool level) {
    if (modemLine == "none") return;
    const bool isInverted = modemLine.front() == '-';
    int bit = modemLine.substr(isInverted ? 1 : 0) == "rts" ? TIOCM_RTS : TIOCM_DTR;
    ioctl(device, level != isInverted ? TIOCMBIS : TIOCMBIC, &bit);
}

}  // namespace

SerialTransport::SerialTransport(const std::string& path, Lines lines)
    : mPath(path),
      mLines(std::move(lines)),
      mDevice(open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {
    if (mDevice < 0) fail("open");
}

SerialTransport::~SerialTransport() { close(mDevice); }

void SerialTransport::fail(const char* what) const {
    throw PortError(mPath + ": " + what + ": " + strerror(errno));
}

// A pseudo terminal drops the parity bit. The C library takes that for a failure where nothing else
// has changed; a real device that does so cannot be used.
void SerialTransport::apply(const termios& settings) const {
    constexpr tcflag_t kParity = PARENB | PARODD;
    const int error = tcsetattr(mDevice, TCSANOW, &settings) == 0 ? 0 : errno;
    if (isPseudoTerminal(mDevice) && (error == 0 || error == EINVAL)) return;
    termios kept{};
    const bool isKnown = tcgetattr(mDevice, &kept) == 0;
    if (isKnown && (kept.c_cflag & kParity) != (settings.c_cflag & kParity)) {
        throw PortError(mPath + ": the device has no such parity");
    }
    errno = error;
    if (error != 0) fail("tcsetattr");
}

// Raw, and without waiting: deadlines are kept by poll.
void SerialTransport::setMode(const LineMode& mode) {
    termios settings{};
    if (tcgetattr(mDevice, &settings) != 0) fail("tcgetattr");
    settings.c_iflag = settings.c_oflag = settings.c_lflag = 0;
    settings.c_cflag = CS8 | CREAD | CLOCAL;
    if (mode.parity != 'N') settings.c_cflag |= PARENB;
    if (mode.parity == 'O') settings.c_cflag |= PARODD;
    settings.c_cc[VMIN] = settings.c_cc[VTIME] = 0;
    cfsetispeed(&settings, codeOf(mode.baud));
    cfsetospeed(&settings, codeOf(mode.baud));
    apply(settings);
    tcflush(mDevice, TCIOFLUSH);
    mMode = mode;
}

void SerialTransport::write(std::span<const uint8_t> bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t sent = ::write(mDevice, bytes.data() + done, bytes.size() - done);
        if (sent > 0) {
            done += static_cast<size_t>(sent);
        } else if (sent < 0 && errno == EAGAIN) {
            pollfd entry{mDevice, POLLOUT, 0};
            poll(&entry, 1, 100);
        } else if (sent == 0 || errno != EINTR) {
            fail("write");
        }
    }
}

// What has come, without waiting.
size_t SerialTransport::take(std::span<uint8_t> into) {
    const ssize_t got = ::read(mDevice, into.data(), into.size());
    if (got < 0 && errno != EAGAIN && errno != EINTR) fail("read");
    return got > 0 ? static_cast<size_t>(got) : 0;
}

// True when something has come.
bool SerialTransport::waitFor(Nanos deadline) const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now());
    pollfd entry{mDevice, POLLIN, 0};
    const int ready = poll(&entry, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
    if (ready < 0 && errno != EINTR) fail("poll");
    return ready > 0;
}

// A board without power has no time either.
void SerialTransport::waitOut(Nanos deadline) const {
    if (!sleepFor(deadline - now()) || now() >= deadline) return;
    throw PortError(mPath + ": time stands still");
}

// Waits for the first byte, then once for nearly as long as the others need: a wake for each would
// be many, and a sleep ends late. What comes by then comes in bunches, which say nothing of the
// time that the rest takes.
size_t SerialTransport::read(std::span<uint8_t> into, Nanos deadline) {
    if (into.empty()) {
        waitOut(deadline);
        return 0;
    }
    size_t got = take(into);
    for (bool hasSlept = false; got < into.size() && now() < deadline;) {
        const Nanos arriving = mMode.timeOf(into.size() - got) - kLead;
        if (got > 0 && arriving > Nanos(0) && !std::exchange(hasSlept, true)) {
            waitOut(std::min(now() + arriving, deadline));
        }
        if (!waitFor(deadline)) continue;
        const size_t more = take(into.subspan(got));
        if (more == 0) throw PortError(mPath + ": the device is gone");
        got += more;
    }
    return got;
}

Nanos SerialTransport::now() const {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::chrono::seconds(time.tv_sec) + Nanos(time.tv_nsec);
}

WakefulCores::WakefulCores() : mRequest(open("/dev/cpu_dma_latency", O_WRONLY | O_CLOEXEC)) {
    constexpr int32_t kLongestWake = 0;  // microseconds
    if (mRequest < 0) return;
    [[maybe_unused]] const auto asked = ::write(mRequest, &kLongestWake, sizeof(kLongestWake));
}

WakefulCores::~WakefulCores() {
    if (mRequest >= 0) close(mRequest);
}

SerialTransport::Lines boardLines() {
    return [](bool boot0, bool nrst) {
        writeLevel("MCU_BOOT0", boot0);
        return writeLevel("MCU_NRST", nrst);
    };
}

SerialTransport::Lines modemLines(const std::string& path, const ModemWiring& wiring) {
    const int device = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    const std::shared_ptr<int> kept(new int(device), [](const int* number) {
        if (*number >= 0) close(*number);
        delete number;
    });
    return [kept, wiring](bool boot0, bool nrst) {
        driveModem(*kept, wiring.boot0, boot0);
        driveModem(*kept, wiring.nrst, nrst);
        return wiring.nrst != "none";
    };
}

}  // namespace quil::tools
