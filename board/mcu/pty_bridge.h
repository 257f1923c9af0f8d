// A boot-loader model behind a pseudo terminal, for programs that know nothing of boards.
//
// The part's BOOT0 is strapped high: whatever resets it starts its boot loader again, and so does
// the last program that closes the port, as with an adapter that has a modem line on the reset pin.
// A pseudo terminal carries no parity, and garbles nothing at a wrong speed.
#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "board/mcu/boot_loader.h"

namespace quil::board {

struct PtyBridgeOptions {
    McuKind part = McuKind::kGd32F303;
    std::filesystem::path flash;      // the file with the part's flash; need not be there
    std::filesystem::path link = {};  // a symbolic link to the port, made and removed; "": none
    bool realtime = false;            // bytes and flash take their time, or none
};

class PtyBridge {
  public:
    explicit PtyBridge(const PtyBridgeOptions&);  // throws std::runtime_error
    ~PtyBridge();
    PtyBridge(const PtyBridge&) = delete;
    PtyBridge& operator=(const PtyBridge&) = delete;

    const std::string& port() const;  // "/dev/pts/3"
    void run();                       // serves until stop is called
    void stop();                      // from any thread, or a signal's handler
    // A program has spoken on the port and not closed it yet. From any thread.
    bool inUse() const { return inUse_.load(); }
    // Between runs.
    McuFlash& flash();
    LoaderFaults& faults();
    const std::vector<std::string>& violations() const;

  private:
    class Part;
    void serveOnce();

    const PtyBridgeOptions options_;
    std::string port_;
    int master_ = -1;
    std::atomic<bool> stopped_{false}, inUse_{false};
    std::unique_ptr<Part> part_;
};

}  // namespace quil::board
