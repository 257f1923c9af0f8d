// The FPGA: it configures itself from the serial flash (or is loaded by the platform's driver),
// raises DONE, calibrates its DDR, and answers on "/dev/fpga_spi", where each write() and read() is
// one SPI transaction.
//
// Lines: PROG_B (the control line) low clears it and takes DONE down. Once PROG_B and the
// configuration line are both high again it reads its image from the flash, at 50 MHz. The host may
// use the flash only while PROG_B is low; any other use is a violation.
//
// A transaction is a command byte (0x02 write, 0x0B read), a 32-bit address, most significant byte
// first, and then the data and a 0x00 to write, or a 0x00 and room for the data to read. Every byte
// is checked. Without a configuration writes have no effect and reads return 0xFF.
//
// Faults: Call::kOpen, kRead, kWrite and kClose by the path.
#pragma once

#include <stdint.h>

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "board/core/services.h"
#include "board/devices/gpio_lines.h"
#include "board/fpga/fpga_image.h"
#include "board/fpga/serial_flash.h"

namespace quil::board {

inline constexpr char kFpgaDevice[] = "/dev/fpga_spi";

// A unit of the FPGA that becomes ready some time after it begins to work; its register then reads
// 1.
struct Readiness {
    Nanos after{0};
    int failures = 0;      // so many beginnings fail first; -1: all of them
    uint8_t notReady = 0;  // what the register reads until then
};

struct SpiTransaction {
    Nanos at;
    bool isRead;
    uint32_t address;
    std::vector<uint8_t> sent;      // all bytes of the program's buffer
    std::vector<uint8_t> received;  // a read's data, without the six bytes before it
};

class Fpga {
  public:
    enum Register : uint32_t {
        kDdrState = 0x1016,
        kSgmiiClock = 0x1100,
        kTransmitReset = 0x1101,
        kReceiveReset = 0x1102,
        kSgmiiNegotiation = 0x1103
    };
    static constexpr Nanos kSpiByte{320};        // 25 MHz
    static constexpr Nanos kConfigureByte{160};  // 50 MHz, one data line
    static constexpr Nanos kClearing = std::chrono::milliseconds(5);
    static constexpr Readiness kDdr{std::chrono::milliseconds(120)};
    static constexpr Readiness kClock{std::chrono::milliseconds(10)};
    static constexpr Readiness kNegotiation{std::chrono::milliseconds(3)};

    struct Lines {
        GpioLine& control;
        GpioLine& config;
        GpioLine& done;
    };
    Fpga(BoardServices&, Lines, SerialFlash&, bool bootsFromFlash);
    ~Fpga();
    Fpga(const Fpga&) = delete;
    Fpga& operator=(const Fpga&) = delete;

    // For tests. A new setting takes effect at once: a unit that has begun begins again.
    void setDdr(const Readiness&);               // begins when the FPGA is configured
    void setSgmiiClock(const Readiness&);        // begins when the FPGA is configured
    void setSgmiiNegotiation(const Readiness&);  // begins when both resets are released
    // Each read of this address returns the next of these bytes; after the last, always the last.
    void scriptReads(uint32_t address, std::vector<uint8_t> values);
    void setStuckUnconfigured(bool);  // every configuration fails
    bool isConfigured() const;
    std::string version() const;  // of the image that it runs; empty when there is none
    std::string problem() const;  // why the last configuration failed
    bool isUdpMode() const;
    std::vector<SpiTransaction> transactions() const;
    // The parameter memory: the addresses written since the configuration, in order.
    using Memory = std::vector<std::pair<uint32_t, uint8_t>>;
    Memory memory() const;
    std::optional<uint8_t> memoryAt(uint32_t address) const;
    // What a register would answer now.
    uint8_t registerNow(Register) const;

    // For the board's other parts, with the board's lock held.
    void powerOn();
    const Lines& lines() const { return mLines; }
    // Both return what the driver does: a count or a negated errno. `truncated`: a fault shortened
    // the transaction, so that its shape is no violation.
    ssize_t spiWrite(std::span<const uint8_t> bytes, bool truncated);
    ssize_t spiRead(std::span<uint8_t> bytes);
    void checkOpenMode(int flags);
    // Loads an image as the platform's driver does. Returns what was wrong with it, else "".
    std::string load(std::span<const uint8_t> image);
    void writeMemory(uint32_t address, std::span<const uint8_t> data);
    void setUdpMode();
    void phyWasReset();

  private:
    // The state of one such unit.
    struct Progress {
        Readiness plan;
        std::optional<Nanos> since;
        int begun = 0;
        void begin(Nanos now);
        void replan(const Readiness&, Nanos now);
        uint8_t value(Nanos now) const;
    };
    static constexpr size_t kPage = 4096;
    struct Page {
        std::array<uint8_t, kPage> bytes{};
        std::array<bool, kPage> written{};
    };

    void linesChanged();
    void clear();
    void beginConfiguration();
    void takeImage(const FpgaImageCheck&, Nanos since);
    bool isWellFormed(std::span<const uint8_t> bytes, bool isRead) const;
    void violation(const std::string& text, std::span<const uint8_t> bytes = {}) const;
    void note(const std::string& text) const;
    void record(const std::string& text, std::span<const uint8_t> bytes) const;
    void writeRegister(uint32_t address, std::span<const uint8_t> data);
    void readInto(uint32_t address, std::span<uint8_t> data);
    uint8_t registerValue(uint32_t address) const;
    Page& pageOf(uint32_t address);
    Nanos now() const { return mBoard.scheduler.now(); }

    BoardServices& mBoard;
    const Lines mLines;
    SerialFlash& mFlash;
    const bool mBootsFromFlash;
    bool mIsPowered = false, mConfigured = false, mStuck = false, mUdp = false;
    std::string mVersion, mProblem;
    std::optional<Scheduler::TimerId> mConfiguring;
    Progress mDdr{kDdr, {}}, mClock{kClock, {}}, mNegotiation{kNegotiation, {}};
    bool mTransmitReset = false, mReceiveReset = false;
    std::map<uint32_t, std::unique_ptr<Page>> mPages;
    std::map<uint32_t, std::vector<uint8_t>> mScripts;
    std::vector<SpiTransaction> mTransactions;
};

}  // namespace quil::board
