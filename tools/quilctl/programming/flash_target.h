// Where the programmer works: at the serial line of a simulated board, or at a device of this
// workstation.
#pragma once

#include <memory>
#include <optional>

#include "programmer/session.h"
#include "tools/quilctl/programming/flash_progress.h"
#include "tools/quilctl/programming/port_arguments.h"
#include "tools/quilctl/programming/serial_transport.h"
#include "tools/quilctl/session/board_session.h"

namespace quil::tools {

struct FlashArguments : PortArguments {
    std::string chip;
    int baud = 0;  // 0: the protocol's usual one
};

// The library, whose log --log-level is about, has no part in it.
inline constexpr unsigned kFlashBoardOptions = kAllBoardOptions & ~kLogLevelOption;

void addFlashOptions(CLI::App& command, FlashArguments& arguments);

class FlashTarget {
  public:
    FlashTarget(const Cli& cli, const FlashArguments& arguments);  // throws std::runtime_error
    ~FlashTarget() { mProgress.finish(); }
    FlashTarget(const FlashTarget&) = delete;
    FlashTarget& operator=(const FlashTarget&) = delete;

    BoardSession* board() { return mBoard ? &*mBoard : nullptr; }  // null: a real device
    programmer::Settings settings;  // for a session, to be changed before it

    // Runs `work` with a session, and shows how far it is.
    template <typename Work>
    programmer::Report run(Work work) {
        programmer::Report report;
        try {
            SerialTransport transport(mPath, mLines);
            programmer::Session session(transport, settings, callbacks());
            report = work(session);
        } catch (const programmer::PortError& error) {
            throw std::runtime_error(error.what());
        }
        return report;
    }

  private:
    programmer::Callbacks callbacks();

    std::optional<BoardSession> mBoard;
    std::optional<WakefulCores> mWakeful;
    std::string mPath;
    SerialTransport::Lines mLines;
    FlashProgress mProgress;
};

}  // namespace quil::tools
