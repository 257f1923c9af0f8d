#include "host/mcu_reader.h"

#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <system_error>

#include "host/log_tag.h"

namespace quil::host {
namespace {

// A readable port without bytes occurs once after a flush, and again and again after a hang-up.
constexpr int kEmptyReadsOfAHangUp = 3;

}  // namespace

McuReader::McuReader(int link, Handler handler) : mLink(link), mHandler(std::move(handler)) {
    if (pipe2(mStopPipe, O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "stop pipe of the MCU reader");
    }
    mThread = std::thread([this] { run(); });
}

McuReader::~McuReader() {
    stop();
    close(mStopPipe[0]);
    close(mStopPipe[1]);
}

void McuReader::stop() {
    if (!mThread.joinable()) return;
    const char stopByte = 0;
    while (write(mStopPipe[1], &stopByte, 1) < 0 && errno == EINTR) {
    }
    mThread.join();
}

AssemblerStatistics McuReader::statistics() const {
    const std::lock_guard lock(mMutex);
    return mStatistics;
}

bool McuReader::linkLost() const {
    const std::lock_guard lock(mMutex);
    return mLinkLost;
}

void McuReader::run() {
    for (;;) {
        switch (waitForSomething()) {
            case Wake::kStop:
                return;
            case Wake::kData:
                if (!readWhatIsThere()) return;
                break;
            case Wake::kSilence:
                deliver(mAssembler.lineWentSilent());
                break;
            case Wake::kAgain:
                break;
            case Wake::kFailed:
                lose("wait");
                return;
        }
    }
}

// Waits without end, except in the middle of a frame.
McuReader::Wake McuReader::waitForSomething() {
    pollfd sources[] = {{mLink, POLLIN, 0}, {mStopPipe[0], POLLIN, 0}};
    const int timeout = mAssembler.held() > 0 ? static_cast<int>(kLongestGap.count()) : -1;
    const int ready = poll(sources, std::size(sources), timeout);
    if (ready < 0) return errno == EINTR || errno == EAGAIN ? Wake::kAgain : Wake::kFailed;
    if (ready == 0) return Wake::kSilence;
    if (sources[1].revents != 0) return Wake::kStop;
    return Wake::kData;
}

// False when the link is gone.
bool McuReader::readWhatIsThere() {
    uint8_t piece[512];
    const ssize_t count = read(mLink, piece, sizeof(piece));
    if (count < 0) {
        if (errno == EINTR || errno == EAGAIN) return true;
        lose(strerror(errno));
        return false;
    }
    if (count == 0) {
        if (++mEmptyReads < kEmptyReadsOfAHangUp) return true;
        lose("hung up");
        return false;
    }
    mEmptyReads = 0;
    deliver(mAssembler.feed({piece, static_cast<size_t>(count)}));
    return true;
}

void McuReader::deliver(const std::vector<WireFrame>& frames) {
    {
        const std::lock_guard lock(mMutex);
        mStatistics = mAssembler.statistics();
    }
    for (const WireFrame& frame : frames) mHandler(frame);
}

void McuReader::lose(const char* what) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "MCU link fd %d is lost: %s", mLink, what);
    const std::lock_guard lock(mMutex);
    mLinkLost = true;
}

}  // namespace quil::host
