// A boot-loader model behind a pseudo terminal, for ordinary programs of the workstation.
//
// The part's BOOT0 is always high: every reset starts its boot loader again. The last program that
// closes the port resets it, as does an adapter whose modem line is connected to the reset pin.
//
// The bridge has one clock and one queue: bytes take the time of the line at the speed that the
// program has set, in the part's own frame (8E1: 11 bits, an N32 8N1: 10 bits; a pseudo terminal
// drops the parity), and flash operations theirs. In real time what happens is held back until it
// is due (the first bytes of a block up to a millisecond longer, as adapters do); otherwise the
// clock jumps to the next event. The order is the same.
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "board/mcu/boot_loader.h"
#include "board/mcu/pty_port.h"

namespace quil::board {

struct PtyBridgeOptions {
    McuKind part = McuKind::kGd32F303;
    std::filesystem::path flash{};    // the file with the part's flash; made when missing
    std::filesystem::path link = {};  // to the port; "": none
    bool realtime = false;            // bytes and flash operations take their real time
    int fastest = McuSurroundings::kPublishedFastest;  // the highest speed that it measures
    uint64_t seed = 0;                                 // of its flash's times; 0: typical ones
    bool slowest = false;                              // its flash takes its longest times
    NoiseRates noise = {};                             // of the line, decided by the seed
};

class PtyBridge {
  public:
    explicit PtyBridge(const PtyBridgeOptions&);  // throws std::runtime_error
    ~PtyBridge();
    PtyBridge(const PtyBridge&) = delete;
    PtyBridge& operator=(const PtyBridge&) = delete;

    const std::string& port() const { return mPort.name(); }
    const std::string& staleTarget() const { return mPort.staleTarget(); }
    void run();   // serves until stop is called
    void stop();  // from any thread or signal handler
    // A program has sent bytes and not closed the port yet. From any thread.
    bool inUse() const { return mInUse.load(); }
    // Not while run() serves.
    Nanos clock() const;  // that its bytes and operations took; not meaningful in real time
    // From the start of the first flash operation to the end of the last answer: what a host needs
    // for its work, without its start and its connection.
    Nanos workTime() const;
    McuFlash& flash();
    LoaderFaults& faults();
    std::vector<std::string> violations() const;

  private:
    class Part;
    void serveOnce();
    void readBytes();

    const PtyPort mPort;
    std::atomic<bool> mStopped{false}, mInUse{false};
    std::unique_ptr<Part> mPart;
};

}  // namespace quil::board
