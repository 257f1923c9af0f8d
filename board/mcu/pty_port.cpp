#include "board/mcu/pty_port.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "board/core/real_calls.h"

namespace quil::board {
namespace {

int openMaster(std::string& port) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    std::array<char, 64> name{};
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 ||
        ptsname_r(master, name.data(), name.size()) != 0) {
        throw std::runtime_error(std::string("no pseudo terminal: ") + strerror(errno));
    }
    port = name.data();
    return master;
}

}  // namespace

PtyPort::PtyPort(std::filesystem::path link) : mLink(std::move(link)), mMaster(openMaster(mName)) {
    if (mLink.empty()) return;
    try {
        makeLink();
    } catch (...) {
        real().close(mMaster);
        throw;
    }
}

PtyPort::~PtyPort() {
    std::error_code ignored;
    if (!mLink.empty() && std::filesystem::read_symlink(mLink, ignored) == mName) {
        std::filesystem::remove(mLink, ignored);
    }
    real().close(mMaster);
}

// A port's number is given out again, also to this program: its own port was gone before.
void PtyPort::makeLink() {
    namespace fs = std::filesystem;
    std::error_code error;
    if (fs::exists(fs::symlink_status(mLink, error))) {
        const std::string target = fs::read_symlink(mLink, error).string();
        if (target.rfind("/dev/pts/", 0) != 0) {
            throw std::runtime_error(mLink.string() + ": in use, and no link to a pseudo terminal");
        }
        if (target != mName && fs::exists(target, error)) {
            throw std::runtime_error(mLink.string() + ": in use, it leads to " + target +
                                     " (remove it if nothing runs there)");
        }
        mStaleTarget = target;
        fs::remove(mLink);
    }
    fs::create_symlink(mName, mLink, error);
    if (error) throw std::system_error(error, mLink.string() + ": cannot be made");
}

std::vector<uint8_t> PtyPort::read() const {
    std::vector<uint8_t> bytes(512);
    const ssize_t got = real().read(mMaster, bytes.data(), bytes.size());
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return bytes;
}

void PtyPort::write(std::span<const uint8_t> bytes) const {
    [[maybe_unused]] const ssize_t sent = real().write(mMaster, bytes.data(), bytes.size());
}

LineSettings PtyPort::lineWith(char parity) const {
    termios settings{};
    real().tcgetattr(mMaster, &settings);
    LineSettings line = settingsOf(settings);
    line.parity = parity;
    return line;
}

}  // namespace quil::board
