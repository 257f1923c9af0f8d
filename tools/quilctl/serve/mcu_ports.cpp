#include "tools/quilctl/serve/mcu_ports.h"

#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>

#include <utility>

#include "board/core/lock.h"
#include "board/core/real_calls.h"

namespace quil::tools {
namespace {

constexpr size_t kOnTheWayMost = 4096;  // as much as a serial port of the kernel keeps
constexpr speed_t kFirstSpeed = B115200;

// A program that sets nothing gets its bytes as they are, and no echo of its own goes to the MCU.
// No program has had the port open before, which poll does not tell apart from one that has.
void setUp(const board::PtyPort& port) {
    const Descriptor once(board::real().open(port.name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios settings{};
    board::real().tcgetattr(once.get(), &settings);
    cfmakeraw(&settings);
    cfsetispeed(&settings, kFirstSpeed);
    cfsetospeed(&settings, kFirstSpeed);
    board::real().tcsetattr(once.get(), TCSANOW, &settings);
}

int watchFor(const Descriptor& openings, const board::PtyPort& port) {
    setUp(port);
    return inotify_add_watch(openings.get(), port.name().c_str(), IN_OPEN | IN_CLOSE);
}

bool isOpenSomewhere(const board::PtyPort& port) {
    pollfd entry{port.master(), 0, 0};
    return board::real().poll(&entry, 1, 0) <= 0 || (entry.revents & POLLHUP) == 0;
}

}  // namespace

McuPorts::End::End(std::filesystem::path name, bool lines, const Descriptor& openings)
    : link(std::move(name)), hasLines(lines), port(link), watch(watchFor(openings, port)) {}

McuPorts::McuPorts(const std::filesystem::path& link, ServedBoard& board,
                   std::function<void()> onBytes)
    : mBoard(board),
      mOnBytes(std::move(onBytes)),
      mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mOpenings(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)),
      mLine(std::filesystem::absolute(link), false, mOpenings),
      mAdapter(std::filesystem::absolute(link) += ".boot", true, mOpenings),
      mThread([this] { serve(); }) {}

McuPorts::~McuPorts() {
    mIsEnding = true;
    wake(mWake);
    mThread.join();
}

std::vector<std::string> McuPorts::replaced() const {
    std::vector<std::string> links;
    for (const End* end : mEnds) {
        if (!end->port.staleTarget().empty()) links.push_back(end->link.string());
    }
    return links;
}

// An adapter that is in use holds BOOT0 of the MCU that the power comes back to, too.
void McuPorts::connectTo(board::Board& board) {
    board.mcuUart().attachOutside(this);
    sent();
    if (mAdapter.programs > 0) board.mcuChip().resetByAdapter(true);
}

void McuPorts::hear(uint8_t byte, const board::LineSettings& sender) {
    for (const End* end : mEnds) {
        if (end->programs == 0) continue;
        const bool isClear = agree(sender, end->port.lineWith(sender.parity));
        const uint8_t heard = isClear ? byte : board::garbled(byte);
        end->port.write({&heard, 1});
    }
}

void McuPorts::sent() {
    if (mIsFull.exchange(false)) wake(mWake);
}

void McuPorts::serve() {
    while (!mIsEnding) {
        pollfd entries[] = {{mWake.get(), POLLIN, 0}, {mOpenings.get(), POLLIN, 0}, {}, {}};
        for (size_t i = 0; i < mEnds.size(); ++i) {
            const bool isRead = mEnds[i]->programs > 0 && !mIsFull;
            entries[i + 2] = {isRead ? mEnds[i]->port.master() : -1, POLLIN, 0};
        }
        board::real().poll(entries, std::size(entries), -1);
        quieten(mWake);
        noteOpenings();
        for (const End* end : mEnds) {
            if (end->programs > 0 && !mIsFull) take(*end);
        }
    }
}

// The kernel tells of two openings in a row as of one, so what the port itself says has the last
// word.
void McuPorts::noteOpenings() {
    alignas(inotify_event) std::array<char, 4096> bytes{};
    const ssize_t count = board::real().read(mOpenings.get(), bytes.data(), bytes.size());
    for (ssize_t at = 0; at < count;) {
        inotify_event event{};
        memcpy(&event, bytes.data() + at, sizeof(event));
        at += static_cast<ssize_t>(sizeof(event) + event.len);
        for (End* end : mEnds) {
            if (event.wd != end->watch) continue;
            (event.mask & IN_OPEN) != 0 ? noteOpening(*end) : noteClosing(*end);
        }
    }
    if (count <= 0) return;
    for (End* end : mEnds) {
        const bool isOpen = isOpenSomewhere(end->port);
        if (isOpen && end->programs == 0) noteOpening(*end);
        if (isOpen || end->programs == 0) continue;
        end->programs = 1;
        noteClosing(*end);
    }
}

void McuPorts::noteOpening(End& end) {
    if (end.programs++ == 0 && end.hasLines) setLines(true);
}

// What was sent before the close is still sent.
void McuPorts::noteClosing(End& end) {
    if (end.programs == 0 || --end.programs > 0) return;
    while (take(end)) {
    }
    if (end.hasLines) setLines(false);
}

void McuPorts::setLines(bool intoBootLoader) {
    try {
        mBoard.use([&](board::Board& board) { board.mcuChip().resetByAdapter(intoBootLoader); });
    } catch (const Failure&) {
        // Without power there is nothing to reset.
    }
}

bool McuPorts::take(const End& end) {
    const std::vector<uint8_t> bytes = end.port.read();
    if (bytes.empty()) return false;
    try {
        mBoard.use([&](board::Board& board) {
            const board::Guard guard(board::boardLock());
            const board::McuChip& mcu = board.mcuChip();
            const bool isLoader = mcu.state() == board::McuChip::State::kBootLoader;
            const auto line = end.port.lineWith(isLoader ? mcu.part().loaderParity() : 'N');
            mIsFull = board.mcuUart().sendFromOutside(bytes, line) > kOnTheWayMost;
        });
        mOnBytes();
    } catch (const Failure&) {
        // Nobody hears them.
    }
    return true;
}

}  // namespace quil::tools
