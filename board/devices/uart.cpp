#include "board/devices/uart.h"

#include <errno.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace quil::board {
namespace {

struct SpeedRow {
    tcflag_t code;
    int baud;
};
#define SPEED(rate) \
    { B##rate, rate }
constexpr std::array<SpeedRow, 30> kSpeeds = {
    {SPEED(50),      SPEED(75),      SPEED(110),     SPEED(134),     SPEED(150),
     SPEED(200),     SPEED(300),     SPEED(600),     SPEED(1200),    SPEED(1800),
     SPEED(2400),    SPEED(4800),    SPEED(9600),    SPEED(19200),   SPEED(38400),
     SPEED(57600),   SPEED(115200),  SPEED(230400),  SPEED(460800),  SPEED(500000),
     SPEED(576000),  SPEED(921600),  SPEED(1000000), SPEED(1152000), SPEED(1500000),
     SPEED(2000000), SPEED(2500000), SPEED(3000000), SPEED(3500000), SPEED(4000000)}};
#undef SPEED

constexpr double kSpeedTolerance = 0.03;  // with a larger error a receiver samples wrong bits

termios factorySettings() {
    termios settings{};
    settings.c_iflag = ICRNL | IXON;
    settings.c_oflag = OPOST | ONLCR;
    settings.c_cflag = B9600 | CS8 | CREAD | HUPCL;
    settings.c_lflag = ISIG | ICANON | ECHO | ECHOE | IEXTEN;
    settings.c_cc[VMIN] = 1;
    cfsetispeed(&settings, B9600);
    cfsetospeed(&settings, B9600);
    return settings;
}

bool agree(const LineSettings& a, const LineSettings& b) {
    return std::abs(a.baud - b.baud) <= kSpeedTolerance * b.baud && a.dataBits == b.dataBits &&
           a.parity == b.parity;
}

}  // namespace

// As the kernel reads c_cflag; an unknown speed code gives the speed 0.
LineSettings settingsOf(const termios& settings) {
    LineSettings line;
    const tcflag_t code = settings.c_cflag & (CBAUD | CBAUDEX);
    const auto row = std::find_if(kSpeeds.begin(), kSpeeds.end(),
                                  [code](const SpeedRow& speed) { return speed.code == code; });
    line.baud = row == kSpeeds.end() ? 0 : row->baud;
    line.dataBits = static_cast<uint8_t>(5 + (settings.c_cflag & CSIZE) / CS6);
    line.parity = settings.c_cflag & PARENB ? (settings.c_cflag & PARODD ? 'O' : 'E') : 'N';
    line.stopBits = settings.c_cflag & CSTOPB ? 2 : 1;
    return line;
}

Uart::Uart(BoardServices& board, std::string path)
    : board_(board),
      path_(std::move(path)),
      settings_(factorySettings()),
      line_(settingsOf(settings_)) {}
Uart::~Uart() = default;

void Uart::note(EventKind kind, const std::string& text, std::vector<uint8_t> bytes) {
    board_.trace.add(kind, path_, text, std::move(bytes));
}

void Uart::noteByte(Nanos start, const LineSettings& line, bool fromHost, uint8_t byte) {
    board_.trace.addWireByte(
        {start, line.bitTime(), fromHost, byte, line.dataBits, line.parity, line.stopBits});
}

int Uart::baud() const {
    Guard guard(boardLock());
    return line_.baud;
}

std::string Uart::mode() const {
    Guard guard(boardLock());
    return std::to_string(line_.dataBits) + line_.parity + std::to_string(line_.stopBits);
}

void Uart::unplug() {
    Guard guard(boardLock());
    plugged_ = false;
    tx_.clear();
    rx_.clear();
    incoming_.clear();
    note(EventKind::kNote, "unplugged");
    board_.scheduler.wakeAll(this);
    board_.readinessChanged();
}

void Uart::addFault(const LineFault& fault) {
    Guard guard(boardLock());
    faults_.push_back(fault);
    faults_.back().byte += passed_.at(fault.fromHost ? 1 : 0);
}

void Uart::powerLost() {
    plugged_ = false;
    tx_.clear();
    rx_.clear();
    incoming_.clear();
    burst_.clear();
}

Nanos Uart::lateness(bool fromHost) const {
    Nanos late{0};
    for (const LineFault& fault : faults_) {
        const bool here = fault.fromHost == fromHost && fault.byte == passed_.at(fromHost ? 1 : 0);
        if (here && fault.kind == LineFault::Kind::kLate) late += fault.delay;
    }
    return late;
}

std::vector<uint8_t> Uart::arriving(bool fromHost, uint8_t byte) {
    std::vector<uint8_t> before;
    bool lost = false;
    const size_t number = passed_.at(fromHost ? 1 : 0);
    for (const LineFault& fault : faults_) {
        if (fault.fromHost != fromHost || fault.byte != number) continue;
        if (fault.kind == LineFault::Kind::kCorrupt) byte ^= fault.value;
        if (fault.kind == LineFault::Kind::kExtra) before.push_back(fault.value);
        lost = lost || fault.kind == LineFault::Kind::kLost;
        note(EventKind::kFault,
             "byte " + std::to_string(number) + (fromHost ? " from the host" : " to the host"));
    }
    if (!lost) before.push_back(byte);
    return before;
}

std::vector<uint8_t> Uart::sentByHost() const {
    Guard guard(boardLock());
    return sent_;
}

size_t Uart::bytesOnTheWay() const {
    Guard guard(boardLock());
    return tx_.size();
}

void Uart::attach(UartPeer* peer) { peer_ = peer; }

int Uart::getattr(termios* settings) const {
    if (!plugged_) return EIO;
    *settings = settings_;
    return 0;
}

int Uart::setattr(const termios& settings) {
    if (!plugged_) return EIO;
    settings_ = settings;
    line_ = settingsOf(settings);
    note(EventKind::kNote, "set to " + std::to_string(line_.baud) + " " + mode());
    return 0;
}

int Uart::flush(int queue) {
    if (!plugged_) return EIO;
    if (queue == TCIFLUSH || queue == TCIOFLUSH) rx_.clear();
    if (queue == TCOFLUSH || queue == TCIOFLUSH) tx_.clear();
    return queue == TCIFLUSH || queue == TCOFLUSH || queue == TCIOFLUSH ? 0 : EINVAL;
}

// Puts bytes into the transmit buffer, and waits for room when it is full. A negative result is the
// negated errno, here and in hostRead.
ssize_t Uart::hostWrite(const uint8_t* data, size_t count, bool nonBlocking) {
    size_t done = 0;
    while (done < count) {
        if (!plugged_) return done > 0 ? static_cast<ssize_t>(done) : -EIO;
        const size_t room = std::min(kBuffer - tx_.size(), count - done);
        tx_.insert(tx_.end(), data + done, data + done + room);
        done += room;
        startTransmit();
        if (done == count || nonBlocking) break;
        board_.scheduler.park("room in the transmit buffer", this);
        if (!board_.power.isOn()) break;
    }
    if (done == 0 && count > 0) return -EAGAIN;
    const std::vector<uint8_t> bytes(data, data + done);
    if (board_.trace.recording()) {
        sent_.insert(sent_.end(), bytes.begin(), bytes.end());
        note(EventKind::kUartTx, std::to_string(done) + " bytes", bytes);
    }
    return static_cast<ssize_t>(done);
}

void Uart::startTransmit() {
    if (transmitting_ || tx_.empty() || line_.baud == 0) return;
    transmitting_ = true;
    noteByte(board_.scheduler.now(), line_, true, tx_.front());
    const Nanos late = faults_.empty() ? Nanos(0) : lateness(true);
    board_.scheduler.at(board_.scheduler.now() + line_.byteTime() + late,
                        [this] { transmitted(); });
}

void Uart::transmitted() {
    transmitting_ = false;
    if (tx_.empty()) return;  // flushed or unplugged in the middle of the byte
    const uint8_t byte = tx_.front();
    const bool wasFull = tx_.size() == kBuffer;
    tx_.pop_front();
    std::vector<uint8_t> faulty;
    if (!faults_.empty()) faulty = arriving(true, byte);
    ++passed_[1];
    startTransmit();
    if (wasFull) {
        board_.scheduler.wakeAll(this);
        board_.readinessChanged();
    }
    if (peer_ == nullptr) return;
    if (faults_.empty()) return peer_->receive(asHeardAt(line_, peer_->lineSettings(), byte));
    for (const uint8_t heard : faulty) {
        peer_->receive(asHeardAt(line_, peer_->lineSettings(), heard));
    }
}

// A receiver with other line settings samples the wrong bits and hears another byte.
uint8_t Uart::asHeardAt(const LineSettings& sender, const LineSettings& listener, uint8_t byte) {
    if (agree(sender, listener)) return byte;
    board_.violation(path_, "framing error on the line");
    return static_cast<uint8_t>((byte << 3 | byte >> 5) ^ 0xA7);
}

void Uart::sendToHost(const std::vector<uint8_t>& bytes) {
    Guard guard(boardLock());
    if (!plugged_) return;
    incoming_.insert(incoming_.end(), bytes.begin(), bytes.end());
    startReceive();
}

void Uart::startReceive() {
    if (receiving_ || incoming_.empty()) return;
    receiving_ = true;
    const LineSettings line = peer_ != nullptr ? peer_->lineSettings() : line_;
    noteByte(board_.scheduler.now(), line, false, incoming_.front());
    const Nanos late = faults_.empty() ? Nanos(0) : lateness(false);
    board_.scheduler.at(board_.scheduler.now() + line.byteTime() + late, [this] { received(); });
}

void Uart::keep(uint8_t byte) {
    if (openCount_ == 0) return;
    if (rx_.size() < kBuffer) rx_.push_back(byte);  // a full buffer drops the byte
    burst_.push_back(byte);
}

void Uart::received() {
    receiving_ = false;
    if (incoming_.empty()) return;
    const LineSettings sender = peer_ != nullptr ? peer_->lineSettings() : line_;
    const uint8_t byte = asHeardAt(sender, line_, incoming_.front());
    incoming_.pop_front();
    if (faults_.empty()) {
        keep(byte);
    } else {
        for (const uint8_t heard : arriving(false, byte)) keep(heard);
    }
    ++passed_[0];
    startReceive();
    if (!receiving_ && !burst_.empty()) {
        const std::vector<uint8_t> burst = std::exchange(burst_, {});
        note(EventKind::kUartRx, std::to_string(burst.size()) + " bytes", burst);
    }
    board_.scheduler.wakeAll(this);
    board_.readinessChanged();
}

ssize_t Uart::hostRead(uint8_t* data, size_t count, bool nonBlocking) {
    const bool canonical = settings_.c_lflag & ICANON;
    const size_t least = canonical ? 1 : std::min<size_t>(settings_.c_cc[VMIN], count);
    if (!waitForInput(least, nonBlocking)) return plugged_ ? -EAGAIN : 0;
    if (!plugged_) return 0;
    const size_t got = std::min(count, rx_.size());
    std::copy_n(rx_.begin(), got, data);
    rx_.erase(rx_.begin(), rx_.begin() + static_cast<std::ptrdiff_t>(got));
    return static_cast<ssize_t>(got);
}

// VMIN 0: waits at most VTIME tenths of a second, for one byte. VMIN n: waits for n bytes.
bool Uart::waitForInput(size_t least, bool nonBlocking) {
    if (nonBlocking) return least == 0 || !rx_.empty();
    Scheduler& scheduler = board_.scheduler;
    if (least > 0) {
        while (plugged_ && rx_.size() < least && scheduler.isOn()) {
            scheduler.park("bytes from the serial line", this);
        }
        return plugged_;
    }
    const Nanos deadline = scheduler.now() + std::chrono::milliseconds(100 * settings_.c_cc[VTIME]);
    while (plugged_ && rx_.empty() && scheduler.now() < deadline) {
        if (!scheduler.park("bytes from the serial line", this, deadline)) break;
    }
    return true;
}

bool Uart::readable() const {
    const bool canonical = settings_.c_lflag & ICANON;
    const size_t least = canonical ? 1 : std::max<size_t>(1, settings_.c_cc[VMIN]);
    return !plugged_ || rx_.size() >= least;
}

bool Uart::writable() const { return !plugged_ || tx_.size() < kBuffer; }

void Uart::opened() { ++openCount_; }

void Uart::closed() {
    if (--openCount_ == 0) rx_.clear();
}

}  // namespace quil::board
