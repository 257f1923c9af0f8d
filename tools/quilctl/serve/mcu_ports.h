// The serial line of a served board's MCU on two pseudo terminals, for programs outside of the
// board.
#pragma once

#include <array>
#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "board/mcu/pty_port.h"
#include "tools/quilctl/serve/board_socket.h"
#include "tools/quilctl/serve/served_board.h"
#include "tools/quilctl/session/interruption.h"

namespace quil::tools {

// What a program sends to a port goes over the line as what the board's own host sends, and every
// program hears all that the MCU sends. The second port is an adapter that also has BOOT0 and the
// reset: the MCU is in its boot loader from the first program's open to the last one's close.
class McuPorts : private board::OutsideHost {
  public:
    // The links to the ports are `link` and `link`.boot. `onBytes`: some have come for the MCU. It
    // must not wait. Throws std::runtime_error.
    McuPorts(const std::filesystem::path& link, ServedBoard&, std::function<void()> onBytes);
    ~McuPorts() override;
    McuPorts(const McuPorts&) = delete;
    McuPorts& operator=(const McuPorts&) = delete;

    // For the board that has just been powered.
    void connectTo(board::Board&);
    // Links that led to ports of a killed program, and have been replaced.
    std::vector<std::string> replaced() const;

  private:
    struct End {
        End(std::filesystem::path name, bool lines, const Descriptor& openings);

        const std::filesystem::path link;
        const bool hasLines;  // BOOT0 and the reset
        const board::PtyPort port;
        const Leftover leftover{link};
        const int watch;               // its number among those of mOpenings
        std::atomic<int> programs{0};  // that have it open
    };

    void hear(uint8_t byte, const board::LineSettings& sender) override;
    void sent() override;
    void serve();
    void noteOpenings();
    void noteOpening(End&);
    void noteClosing(End&);
    void setLines(bool intoBootLoader);
    bool take(const End&);  // false: there was nothing

    ServedBoard& mBoard;
    const std::function<void()> mOnBytes;
    const Descriptor mWake, mOpenings;
    End mLine, mAdapter;
    const std::array<End*, 2> mEnds{&mLine, &mAdapter};
    std::atomic<bool> mIsEnding{false}, mIsFull{false};
    std::thread mThread;
};

}  // namespace quil::tools
