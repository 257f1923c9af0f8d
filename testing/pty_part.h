// A part's boot loader behind a pseudo terminal, served on a thread, and Debian's stm32flash on it.
// A pseudo terminal has no parity, hence the program's option -m 8n1.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include "board/mcu/pty_bridge.h"
#include "testing/program_output.h"

namespace quil::tests {

inline constexpr char kStm32flash[] = "/usr/bin/stm32flash";
inline bool hasStm32flash() { return access(kStm32flash, X_OK) == 0; }

class PtyPart {
  public:
    explicit PtyPart(const board::PtyBridgeOptions& options) : mBridge(options) { serve(); }
    ~PtyPart() { rest(); }
    PtyPart(const PtyPart&) = delete;
    PtyPart& operator=(const PtyPart&) = delete;

    const std::string& port() const { return mBridge.port(); }

    // Until the bridge has taken the first bytes of a host.
    void awaitBytes() const {
        while (!mBridge.inUse()) std::this_thread::yield();
    }
    // Runs stm32flash on the port, and waits until its close has reset the part.
    CommandRun stm32flash(const std::string& arguments) const {
        CommandRun run = runCommand(std::string(kStm32flash) + " -m 8n1 -b 115200 " + arguments +
                                    " " + port() + " 2>&1");
        while (mBridge.inUse()) std::this_thread::yield();
        return run;
    }

    // The bridge, which serves no longer until serve() is called.
    board::PtyBridge& rest() {
        if (mServer.joinable()) {
            mBridge.stop();
            mServer.join();
        }
        return mBridge;
    }
    void serve() {
        mServer = std::thread([this] { mBridge.run(); });
    }

  private:
    board::PtyBridge mBridge;
    std::thread mServer;
};

}  // namespace quil::tests
