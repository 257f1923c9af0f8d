// A part's boot loader as a session uses it, whichever its protocol. Each call either has its
// effect or throws: Refusal, LinkLost, Cancelled, PortError. What the line does to an exchange is
// answered inside.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "programmer/parts.h"
#include "programmer/wire.h"

namespace quil::programmer {

// What the part says of itself.
struct Identity {
    uint16_t productId = 0;
    uint32_t gdPid = 0;
    std::string name;  // of an N32
    uint8_t loaderVersion = 0;
    Bytes commands;
    const Part* part = nullptr;  // null: none of the table

    std::string text() const;  // "product 0x0414, GD32 0x46455633, boot loader 3.0"
};

// How a stretch of flash differs from what it should hold.
struct Findings {
    std::vector<Region> missing;  // erased, and to be written: in programming units
    struct Cell {
        uint32_t address;
        std::optional<uint8_t> found;  // where the protocol can read
        uint8_t wanted;
    };
    std::optional<Cell> wrong;  // the first one that only an erase can mend
    bool equal() const { return missing.empty() && !wrong; }
};

class BootLoader {
  public:
    virtual ~BootLoader() = default;

    // Into the boot loader, and in step with it.
    virtual void connect() = 0;
    virtual Identity identify() = 0;
    // Before the calls below.
    virtual void use(const Part& part) = 0;

    virtual const char* verifiesBy() const = 0;  // "read-back"
    virtual bool readoutProtected() = 0;
    virtual void read(uint32_t address, std::span<uint8_t> into) = 0;
    // Bytes worth comparing before a whole page is; 0: a page costs no more.
    virtual size_t probeSize() const = 0;
    // Two of three readings decide.
    virtual bool holds(uint32_t address, std::span<const uint8_t> expected) = 0;
    virtual Findings examine(uint32_t address, std::span<const uint8_t> expected) = 0;
    // A block may be left half written when the line or the part fails: examine() tells.
    virtual void write(uint32_t address, std::span<const uint8_t> block) = 0;
    virtual void erase(const std::vector<uint32_t>& pages) = 0;
    virtual void eraseEverything() = 0;

    // The part resets after each; the session is connected again.
    virtual void protectReadout() = 0;
    virtual void unprotectReadout() = 0;  // erases everything
    virtual void protectPages(const std::vector<uint8_t>& sectors) = 0;
    virtual void unprotectPages() = 0;

    // The time that these bytes take when nothing goes wrong.
    virtual Nanos timeToWrite(size_t bytes) const = 0;
    virtual Nanos timeToCheck(size_t bytes) const = 0;

    // Out of the boot loader. False when nothing is wired to NRST.
    virtual bool leave() = 0;
};

struct ConnectOptions {
    int baud = 115200;
    // A request of the application that runs on such parts, and how it is sent: tells an
    // application that answers from a part that is silent. Empty: not asked.
    Bytes applicationRequest = {};
    LineMode applicationMode = {115200, 'N'};
};

std::unique_ptr<BootLoader> makeAn3155(Wire& wire, const ConnectOptions& options);
std::unique_ptr<BootLoader> makeN32(Wire& wire, const ConnectOptions& options);

// Ends a session: nobody answers, or the application does, which is asked here.
[[noreturn]] void noLoaderAnswers(Wire& wire, const ConnectOptions& options, bool isWired);

std::string hexOf(uint32_t value, int digits = 8);  // "0x08000000"

}  // namespace quil::programmer
