// Keeps a board powered and runs the commands of its clients.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>

#include "tools/quilctl/serve/mcu_ports.h"
#include "tools/quilctl/serve/served_board.h"
#include "tools/quilctl/serve/server.h"

namespace quil::tools {

class Serving {
  public:
    // The directory is the caller's for as long as this lives. `ports`: the link to the MCU's line
    // for other programs; "": none. Throws Failure or std::runtime_error.
    Serving(const std::filesystem::path& directory, ServedBoard::Power power,
            const std::filesystem::path& ports = {});
    ~Serving();
    Serving(const Serving&) = delete;
    Serving& operator=(const Serving&) = delete;

    // Runs commands on the calling thread, which powers the board, until close or an interruption.
    // `onReady` is called when the board is powered.
    void run(const std::function<void()>& onReady);
    void close();  // from any thread
    const McuPorts* ports() const { return mPorts ? &*mPorts : nullptr; }

  private:
    void goOn();
    void act(const Server::Job& job, bool atOnce);
    int runCommand(const Server::Job& job);

    const std::filesystem::path mDirectory;
    const Descriptor mFolder;  // where the server itself works
    ServedBoard mBoard;
    Server mServer;
    std::optional<McuPorts> mPorts;
};

}  // namespace quil::tools
