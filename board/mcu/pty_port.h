// A pseudo terminal whose other end is a program of the workstation, and a name for it.
#pragma once

#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "board/devices/uart.h"

namespace quil::board {

class PtyPort {
  public:
    // Makes a symbolic link to the port, and removes it in the end; "": none. A name in use is
    // refused, but for the link that a killed program has left: to a port that is gone. Throws
    // std::runtime_error.
    explicit PtyPort(std::filesystem::path link);
    ~PtyPort();
    PtyPort(const PtyPort&) = delete;
    PtyPort& operator=(const PtyPort&) = delete;

    const std::string& name() const { return mName; }  // "/dev/pts/3"
    int master() const { return mMaster; }
    // The port that the link led to before; "" when there was none.
    const std::string& staleTarget() const { return mStaleTarget; }

    std::vector<uint8_t> read() const;  // nothing: there is nothing to read now
    // A program that does not read loses bytes, as with any receiver.
    void write(std::span<const uint8_t>) const;
    // As the program has set it. A pseudo terminal tells no parity.
    LineSettings lineWith(char parity) const;

  private:
    void makeLink();

    const std::filesystem::path mLink;
    std::string mName, mStaleTarget;
    int mMaster = -1;
};

}  // namespace quil::board
