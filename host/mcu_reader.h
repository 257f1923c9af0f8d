#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "host/frame_assembler.h"

namespace quil::host {

// The thread that listens to the MCU. It owns the reading side of the link: nothing else may read
// from the descriptor while it runs.
class McuReader {
  public:
    using Handler = std::function<void(const WireFrame&)>;

    // A frame that pauses for longer than this will not go on.
    static constexpr std::chrono::milliseconds kLongestGap{50};

    // Starts at once; `handler` is called on the reader's thread with every good frame. Throws
    // std::system_error when the stop pipe or the thread cannot be had.
    McuReader(int link, Handler handler);
    ~McuReader();
    McuReader(const McuReader&) = delete;
    McuReader& operator=(const McuReader&) = delete;

    // Ends the thread and waits for it; the descriptor stays open.
    void stop();

    AssemblerStatistics statistics() const;
    bool linkLost() const;  // the device failed or hung up, and the thread has ended by itself

  private:
    enum class Wake { kData, kSilence, kStop, kAgain, kFailed };

    void run();
    Wake waitForSomething();
    bool readWhatIsThere();
    void deliver(const std::vector<WireFrame>& frames);
    void lose(const char* what);

    const int mLink;
    const Handler mHandler;
    int mStopPipe[2];
    int mEmptyReads = 0;  // in a row
    FrameAssembler mAssembler;
    mutable std::mutex mMutex;  // guards the two below
    AssemblerStatistics mStatistics;
    bool mLinkLost = false;
    std::thread mThread;
};

}  // namespace quil::host
