// The trace in the format of waveform viewers (VCD, IEEE 1364).
#include <ctype.h>

#include <algorithm>
#include <array>
#include <map>
#include <utility>

#include "board/core/lock.h"
#include "board/core/trace.h"

namespace quil::board {
namespace {

// The level of each line that changes, by nanosecond of the file.
using Levels = std::map<int64_t, std::map<char, int>>;

struct SerialWire {
    const char* name;
    const char* direction;
    bool fromHost;
};
constexpr std::array<SerialWire, 2> kSerialWires = {
    {{"mcu_tx", "host to MCU", true}, {"mcu_rx", "MCU to host", false}}};
constexpr char kFirstId = '!', kLastId = '~';  // of a wire, one character

// A reader takes the first level of a line for its initial one, so that an edge at once would be
// none: the lines are idle for so long before the board's time 0. And as long after the last byte,
// which a reader would not see the end of.
constexpr Nanos kIdle = std::chrono::milliseconds(1);

constexpr int64_t kSecond = 1'000'000'000;

int64_t timeInFile(Nanos at) { return (at + kIdle).count(); }

// Where bit `number` of a byte begins. Multiplied first: no rounding adds up.
Nanos startOfBit(const WireByte& byte, size_t number) {
    return byte.start + Nanos(kSecond * static_cast<int64_t>(number) / byte.baud);
}

std::vector<int> bitsOf(const WireByte& byte) {
    std::vector<int> bits = {0};  // the start bit
    int ones = 0;
    for (int i = 0; i < byte.dataBits; ++i) {
        bits.push_back(byte.value >> i & 1);
        ones += bits.back();
    }
    if (byte.parity == 'E') bits.push_back(ones & 1);
    if (byte.parity == 'O') bits.push_back(~ones & 1);
    bits.push_back(1);  // a second stop bit is the same level
    return bits;
}

std::string modeOf(const WireByte& byte) {
    return std::to_string(byte.baud) + " " + std::to_string(byte.dataBits) + byte.parity +
           std::to_string(byte.stopBits);
}

const char* parityName(char parity) {
    return parity == 'E' ? "even" : parity == 'O' ? "odd" : "none";
}

// The largest of 1, 2, 5, 10, .. that leaves a reader 16 samples of each bit: one sample for each
// nanosecond would be more than it needs.
int64_t downsampleFor(int baud) {
    const int64_t most = std::max<int64_t>(kSecond / (int64_t{16} * baud), 1);
    int64_t decade = 1;
    while (decade * 10 <= most) decade *= 10;
    return decade * (most >= decade * 5 ? 5 : most >= decade * 2 ? 2 : 1);
}

std::string decoderFor(const SerialWire& wire, const WireByte& byte) {
    return "sigrok-cli -I vcd:downsample=" + std::to_string(downsampleFor(byte.baud)) +
           " -P uart:rx=" + wire.name + ":baudrate=" + std::to_string(byte.baud) +
           ":data_bits=" + std::to_string(byte.dataBits) + ":parity=" + parityName(byte.parity) +
           ":stop_bits=" + std::to_string(byte.stopBits) + " -A uart=rx-data -i FILE";
}

std::string comment(const std::string& text) { return "$comment " + text + " $end\n"; }

// How to decode a wire: its settings, each with the time of its first byte.
std::string settingsOf(const SerialWire& wire, const std::vector<WireByte>& bytes) {
    std::string text, mode;
    for (const WireByte& byte : bytes) {
        if (byte.fromHost != wire.fromHost || byte.baud <= 0 || modeOf(byte) == mode) continue;
        mode = modeOf(byte);
        text +=
            comment(std::string(wire.name) + " from #" + std::to_string(timeInFile(byte.start)) +
                    ": UART " + mode + ": " + decoderFor(wire, byte));
    }
    return text;
}

// A file in the making: wires are declared, levels set in any order of time.
class VcdFile {
  public:
    VcdFile() { mComments = comment("the board's time 0 is #" + std::to_string(kIdle.count())); }

    // '\0' when there are more wires than identifiers: the wire is left out.
    char addWire(const std::string& name, const std::string& comments, int level) {
        mComments += comments;
        if (mNextId > kLastId) return '\0';
        mWires += std::string("$var wire 1 ") + mNextId + " " + name + " $end\n";
        mLevels[0][mNextId] = level;
        return mNextId++;
    }
    void set(char id, Nanos at, int level) {
        if (id != '\0') mLevels[timeInFile(at)][id] = level;
        extendTo(at);
    }
    void extendTo(Nanos at) { mEnd = std::max(mEnd, at); }

    std::string text() {
        mLevels[timeInFile(mEnd + kIdle)];
        std::string text = mComments + "$timescale 1ns $end\n$scope module board $end\n" + mWires +
                           "$upscope $end\n$enddefinitions $end\n";
        for (const auto& [at, changes] : mLevels) {
            text += "#" + std::to_string(at) + "\n";
            for (const auto& [id, level] : changes) {
                text += level == 0 ? '0' : '1';
                text += id;
                text += '\n';
            }
        }
        return text;
    }

  private:
    std::string mComments, mWires;
    char mNextId = kFirstId;
    Levels mLevels;
    Nanos mEnd{0};
};

void addSerialWire(VcdFile& file, const SerialWire& wire, const std::vector<WireByte>& bytes) {
    const char id = file.addWire(
        wire.name,
        comment(std::string(wire.name) + ": " + wire.direction) + settingsOf(wire, bytes), 1);
    int level = 1;
    for (const WireByte& byte : bytes) {
        if (byte.fromHost != wire.fromHost || byte.baud <= 0) continue;
        const std::vector<int> bits = bitsOf(byte);
        for (size_t i = 0; i < bits.size(); ++i) {
            if (bits[i] == level) continue;
            level = bits[i];
            file.set(id, startOfBit(byte, i), level);
        }
        file.extendTo(startOfBit(byte, bits.size()));
    }
}

// Mode 0: the clock rises in the middle of a bit and falls at its end, where data changes: what is
// at the same time costs one time stamp, of which the file mostly consists. Between two transfers
// the select line is high, if only for an eighth of a bit.
class SpiWires {
  public:
    explicit SpiWires(VcdFile& file)
        : mFile(file),
          mSelect(
              file.addWire("spi_cs", comment("spi_cs: the FPGA is selected while it is low"), 1)),
          mClock(file.addWire("spi_clk", comment(kSpiDecoder), 0)),
          mOut(file.addWire("spi_mosi", comment("spi_mosi: host to FPGA"), 0)),
          mIn(file.addWire("spi_miso", comment("spi_miso: FPGA to host"), 0)) {}

    void add(const SpiTransfer& transfer) {
        const Nanos bit = transfer.byteTime / 8;
        mFile.set(mSelect, transfer.start, 0);
        const size_t bits = transfer.sent.size() * 8;
        for (size_t i = 0; i < bits; ++i) {
            const Nanos begin = transfer.start + bit * static_cast<int64_t>(i);
            change(mOut, mOutLevel, begin, bitAt(transfer.sent, i));
            change(mIn, mInLevel, begin, bitAt(transfer.received, i));
            mFile.set(mClock, begin + bit / 2, 1);
            // The last one falls before the select line rises.
            mFile.set(mClock, i + 1 == bits ? begin + bit * 3 / 4 : begin + bit, 0);
        }
        const Nanos end = transfer.start + bit * static_cast<int64_t>(bits);
        mFile.set(mSelect, end - bit / 8, 1);
    }

  private:
    static constexpr char kSpiDecoder[] =
        "spi_clk: mode 0: sigrok-cli -I vcd:downsample=5 -P "
        "spi:clk=spi_clk:mosi=spi_mosi:miso=spi_miso:cs=spi_cs -A spi=mosi-data -i FILE";

    static int bitAt(const std::vector<uint8_t>& bytes, size_t number) {
        return number / 8 < bytes.size() ? bytes[number / 8] >> (7 - number % 8) & 1 : 0;
    }
    void change(char id, int& level, Nanos at, int to) {
        if (to != level) mFile.set(id, at, to);
        level = to;
    }

    VcdFile& mFile;
    const char mSelect, mClock, mOut, mIn;
    int mOutLevel = 0, mInLevel = 0;
};

std::string wireName(const std::string& line) {
    std::string name;
    for (const char c : line) name += isalnum(static_cast<unsigned char>(c)) != 0 ? c : '_';
    return name;
}

// What a line was before its first edge is the other level.
void addGpioWires(VcdFile& file, const std::vector<Event>& events) {
    std::map<std::string, char> ids;
    for (const Event& event : events) {
        if (event.kind != EventKind::kGpio) continue;
        const int level = event.text == "1" ? 1 : 0;
        const auto [id, isNew] = ids.try_emplace(event.source, '\0');
        if (isNew) {
            const std::string name = wireName(event.source);
            id->second = file.addWire(name, comment(name + ": GPIO " + event.source), 1 - level);
        }
        file.set(id->second, event.at, level);
    }
}

// The boot loader talks on the MCU's lines: a wire of its own tells when.
void addBootLoaderWire(VcdFile& file, const std::vector<Event>& events) {
    constexpr std::array<std::pair<const char*, int>, 4> kStates = {
        {{"the boot loader starts", 1},
         {"the application starts", 0},
         {"no start: ", 0},
         {"a jump out of the boot loader", 0}}};
    const auto levelAfter = [&](const Event& event) {
        for (const auto& [text, level] : kStates) {
            if (event.kind == EventKind::kMcu && event.text.rfind(text, 0) == 0) return level;
        }
        return -1;
    };
    if (std::none_of(events.begin(), events.end(),
                     [&](const Event& event) { return levelAfter(event) == 1; })) {
        return;
    }
    const char id =
        file.addWire("mcu_boot_loader", comment("mcu_boot_loader: high while it runs"), 0);
    for (const Event& event : events) {
        if (levelAfter(event) >= 0) file.set(id, event.at, levelAfter(event));
    }
}

}  // namespace

std::string Trace::toVcd() const {
    Guard guard(boardLock());
    VcdFile file;
    for (const SerialWire& wire : kSerialWires) addSerialWire(file, wire, mWire);
    addBootLoaderWire(file, mEvents);
    addGpioWires(file, mEvents);
    if (!mSpi.empty()) {
        SpiWires wires(file);
        for (const SpiTransfer& transfer : mSpi) wires.add(transfer);
    }
    return file.text();
}

}  // namespace quil::board
