#include "board/devices/uart.h"

#include <errno.h>
#include <stddef.h>

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

}  // namespace

bool agree(const LineSettings& a, const LineSettings& b) {
    return std::abs(a.baud - b.baud) <= kSpeedTolerance * b.baud && a.dataBits == b.dataBits &&
           a.parity == b.parity;
}

uint8_t garbled(uint8_t byte) { return static_cast<uint8_t>((byte << 3 | byte >> 5) ^ 0xA7); }

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
    : mBoard(board),
      mPath(std::move(path)),
      mSettings(factorySettings()),
      mHost{.line = settingsOf(mSettings)} {
    mBoard.trace.onClear([this] { mSent.clear(); });
}
Uart::~Uart() = default;

void Uart::note(EventKind kind, const std::string& text, std::vector<uint8_t> bytes) {
    mBoard.trace.add(kind, mPath, text, std::move(bytes));
}

void Uart::noteByte(Nanos start, const LineSettings& line, bool fromHost, uint8_t byte) {
    mBoard.trace.addWireByte(
        {start, line.baud, fromHost, byte, line.dataBits, line.parity, line.stopBits});
}

int Uart::baud() const {
    Guard guard(boardLock());
    return mHost.line.baud;
}

std::string Uart::mode() const {
    Guard guard(boardLock());
    return std::to_string(mHost.line.dataBits) + mHost.line.parity +
           std::to_string(mHost.line.stopBits);
}

void Uart::unplug() {
    Guard guard(boardLock());
    mPlugged = false;
    forgetBytes();
    note(EventKind::kNote, "unplugged");
    mBoard.scheduler.wakeAll(this);
    mBoard.readinessChanged();
}

void Uart::addFault(const LineFault& fault) {
    Guard guard(boardLock());
    mFaults.push_back(fault);
    mFaults.back().byte += mPassed.at(fault.fromHost ? 1 : 0);
}

void Uart::addNoise(uint64_t seed, const NoiseRates& rates) {
    Guard guard(boardLock());
    mNoise.emplace(seed, rates);
}

void Uart::powerLost() {
    mPlugged = false;
    forgetBytes();
    mBurst.clear();
}

void Uart::forgetBytes() {
    mHost.bytes.clear();
    mFromOutside.bytes.clear();
    mRx.clear();
    mIncoming.clear();
    if (mOutside != nullptr) mOutside->sent();
}

Nanos Uart::lateness(bool fromHost) const {
    Nanos late{0};
    for (const LineFault& fault : mFaults) {
        const bool here = fault.fromHost == fromHost && fault.byte == mPassed.at(fromHost ? 1 : 0);
        if (here && fault.kind == LineFault::Kind::kLate) late += fault.delay;
    }
    return late;
}

std::vector<uint8_t> Uart::arriving(bool fromHost, uint8_t byte) {
    std::vector<uint8_t> before;
    bool lost = false;
    const size_t number = mPassed.at(fromHost ? 1 : 0);
    for (const LineFault& fault : mFaults) {
        if (fault.fromHost != fromHost || fault.byte != number) continue;
        if (fault.kind == LineFault::Kind::kCorrupt) byte ^= fault.value;
        if (fault.kind == LineFault::Kind::kExtra) before.push_back(fault.value);
        lost = lost || fault.kind == LineFault::Kind::kLost;
        note(EventKind::kFault,
             "byte " + std::to_string(number) + (fromHost ? " from the host" : " to the host"));
    }
    if (lost) return before;
    const auto heard = mNoise ? mNoise->arriving(byte) : std::vector<uint8_t>{byte};
    before.insert(before.end(), heard.begin(), heard.end());
    return before;
}

std::vector<uint8_t> Uart::sentByHost() const {
    Guard guard(boardLock());
    return mSent;
}

size_t Uart::bytesOnTheWay() const {
    Guard guard(boardLock());
    return mHost.bytes.size();
}

void Uart::attach(UartPeer* peer) { mPeer = peer; }

int Uart::getattr(termios* settings) const {
    if (!mPlugged) return EIO;
    *settings = mSettings;
    return 0;
}

int Uart::setattr(const termios& settings) {
    if (!mPlugged) return EIO;
    mSettings = settings;
    mHost.line = settingsOf(settings);
    note(EventKind::kNote, "set to " + std::to_string(mHost.line.baud) + " " + mode());
    return 0;
}

int Uart::flush(int queue) {
    if (!mPlugged) return EIO;
    if (queue == TCIFLUSH || queue == TCIOFLUSH) mRx.clear();
    if (queue == TCOFLUSH || queue == TCIOFLUSH) mHost.bytes.clear();
    return queue == TCIFLUSH || queue == TCOFLUSH || queue == TCIOFLUSH ? 0 : EINVAL;
}

// Puts bytes into the transmit buffer, and waits for room when it is full. A negative result is the
// negated errno, here and in hostRead.
ssize_t Uart::hostWrite(const uint8_t* data, size_t count, bool nonBlocking) {
    size_t done = 0;
    while (done < count) {
        if (!mPlugged) return done > 0 ? static_cast<ssize_t>(done) : -EIO;
        const size_t room = std::min(kBuffer - mHost.bytes.size(), count - done);
        mHost.bytes.insert(mHost.bytes.end(), data + done, data + done + room);
        done += room;
        startTransmit();
        if (done == count || nonBlocking) break;
        mBoard.scheduler.park("room in the transmit buffer", this);
        if (!mBoard.power.isOn()) break;
    }
    if (done == 0 && count > 0) return -EAGAIN;
    const std::vector<uint8_t> bytes(data, data + done);
    if (mBoard.trace.recording()) {
        mSent.insert(mSent.end(), bytes.begin(), bytes.end());
        note(EventKind::kUartTx, std::to_string(done) + " bytes", bytes);
    }
    return static_cast<ssize_t>(done);
}

void Uart::startTransmit() {
    if (mTransmitting) return;
    if (!mSending->isReady()) mSending = mSending == &mHost ? &mFromOutside : &mHost;
    if (!mSending->isReady()) return;
    mTransmitting = true;
    noteByte(mBoard.scheduler.now(), mSending->line, true, mSending->bytes.front());
    const Nanos late = mFaults.empty() ? Nanos(0) : lateness(true);
    mBoard.scheduler.at(mBoard.scheduler.now() + mSending->line.byteTime() + late,
                        [this] { transmitted(); });
}

void Uart::transmitted() {
    mTransmitting = false;
    Sender& sender = *mSending;
    if (sender.bytes.empty()) return startTransmit();  // flushed or unplugged in the byte's middle
    mHeard = &sender;
    const uint8_t byte = sender.bytes.front();
    const bool wasFull = mHost.bytes.size() == kBuffer;
    sender.bytes.pop_front();
    std::vector<uint8_t> faulty;
    if (isFaulty()) faulty = arriving(true, byte);
    ++mPassed[1];
    startTransmit();
    if (wasFull) {
        mBoard.scheduler.wakeAll(this);
        mBoard.readinessChanged();
    }
    if (&sender == &mFromOutside && sender.bytes.empty()) mOutside->sent();
    if (mPeer == nullptr) return;
    if (!isFaulty()) return mPeer->receive(asHeardAt(sender.line, mPeer->lineSettings(), byte));
    for (const uint8_t heard : faulty) {
        mPeer->receive(asHeardAt(sender.line, mPeer->lineSettings(), heard));
    }
}

void Uart::attachOutside(OutsideHost* outside) {
    Guard guard(boardLock());
    mOutside = outside;
}

size_t Uart::sendFromOutside(const std::vector<uint8_t>& bytes, const LineSettings& line) {
    Guard guard(boardLock());
    if (!mPlugged || line.baud == 0 || mOutside == nullptr) return 0;
    mFromOutside.line = line;
    mFromOutside.bytes.insert(mFromOutside.bytes.end(), bytes.begin(), bytes.end());
    note(EventKind::kUartTx, std::to_string(bytes.size()) + " bytes from outside", bytes);
    startTransmit();
    return mFromOutside.bytes.size();
}

// A receiver with other line settings samples the wrong bits and hears another byte.
uint8_t Uart::asHeardAt(const LineSettings& sender, const LineSettings& listener, uint8_t byte) {
    if (agree(sender, listener)) return byte;
    mBoard.violation(mPath, "framing error on the line");
    return garbled(byte);
}

void Uart::sendToHost(const std::vector<uint8_t>& bytes) {
    Guard guard(boardLock());
    if (!mPlugged) return;
    mIncoming.insert(mIncoming.end(), bytes.begin(), bytes.end());
    startReceive();
}

void Uart::startReceive() {
    if (mReceiving || mIncoming.empty()) return;
    mReceiving = true;
    const LineSettings line = mPeer != nullptr ? mPeer->lineSettings() : mHost.line;
    noteByte(mBoard.scheduler.now(), line, false, mIncoming.front());
    const Nanos late = mFaults.empty() ? Nanos(0) : lateness(false);
    mBoard.scheduler.at(mBoard.scheduler.now() + line.byteTime() + late, [this] { received(); });
}

void Uart::keep(uint8_t byte) {
    if (mOpenCount == 0 && mOutside == nullptr) return;
    if (mOpenCount > 0 && mRx.size() < kBuffer) mRx.push_back(byte);  // a full buffer drops it
    mBurst.push_back(byte);
}

void Uart::received() {
    mReceiving = false;
    if (mIncoming.empty()) return;
    const LineSettings sender = mPeer != nullptr ? mPeer->lineSettings() : mHost.line;
    uint8_t byte = mIncoming.front();
    mIncoming.pop_front();
    if (mOutside != nullptr) mOutside->hear(byte, sender);
    if (mOpenCount > 0) byte = asHeardAt(sender, mHost.line, byte);
    if (!isFaulty()) {
        keep(byte);
    } else {
        for (const uint8_t heard : arriving(false, byte)) keep(heard);
    }
    ++mPassed[0];
    startReceive();
    if (!mReceiving && !mBurst.empty()) {
        const std::vector<uint8_t> burst = std::exchange(mBurst, {});
        note(EventKind::kUartRx, std::to_string(burst.size()) + " bytes", burst);
    }
    mBoard.scheduler.wakeAll(this);
    mBoard.readinessChanged();
}

ssize_t Uart::hostRead(uint8_t* data, size_t count, bool nonBlocking) {
    const bool canonical = mSettings.c_lflag & ICANON;
    const size_t least = canonical ? 1 : std::min<size_t>(mSettings.c_cc[VMIN], count);
    if (!waitForInput(least, nonBlocking)) return mPlugged ? -EAGAIN : 0;
    if (!mPlugged) return 0;
    const size_t got = std::min(count, mRx.size());
    std::copy_n(mRx.begin(), got, data);
    mRx.erase(mRx.begin(), mRx.begin() + static_cast<ptrdiff_t>(got));
    return static_cast<ssize_t>(got);
}

// VMIN 0: waits at most VTIME tenths of a second, for one byte. VMIN n: waits for n bytes.
bool Uart::waitForInput(size_t least, bool nonBlocking) {
    if (nonBlocking) return least == 0 || !mRx.empty();
    Scheduler& scheduler = mBoard.scheduler;
    if (least > 0) {
        while (mPlugged && mRx.size() < least && scheduler.isOn()) {
            scheduler.park("bytes from the serial line", this);
        }
        return mPlugged;
    }
    const Nanos deadline = scheduler.now() + std::chrono::milliseconds(100 * mSettings.c_cc[VTIME]);
    while (mPlugged && mRx.empty() && scheduler.now() < deadline) {
        if (!scheduler.park("bytes from the serial line", this, deadline)) break;
    }
    return true;
}

bool Uart::readable() const {
    const bool canonical = mSettings.c_lflag & ICANON;
    const size_t least = canonical ? 1 : std::max<size_t>(1, mSettings.c_cc[VMIN]);
    return !mPlugged || mRx.size() >= least;
}

bool Uart::writable() const { return !mPlugged || mHost.bytes.size() < kBuffer; }

void Uart::opened() { ++mOpenCount; }

void Uart::closed() {
    if (--mOpenCount == 0) mRx.clear();
}

}  // namespace quil::board
