#pragma once

#include <stdint.h>

#include <vector>

#include "host/wire_frame.h"

namespace quil::host {

struct AssemblerStatistics {
    uint64_t frames = 0;
    uint64_t badHeaders = 0;    // a magic that was followed by no possible header
    uint64_t badChecksums = 0;  // a whole frame with a wrong sum
    uint64_t abandoned = 0;     // a frame that began and never came to its end
    uint64_t skippedBytes = 0;  // everything that belonged to no good frame
};

// Cuts the byte stream of the MCU into frames. It trusts nothing: after noise, a lying length or a
// wrong sum it goes on one byte further, so that a good frame which starts inside a bad one is
// still found. It never holds more than one longest frame.
class FrameAssembler {
  public:
    // Takes bytes as they come, in pieces of any size; gives the frames that became complete.
    std::vector<WireFrame> feed(ByteView bytes);

    // The line has been silent for too long: what is held will never be completed. Gives the good
    // frames that stand inside the remains.
    std::vector<WireFrame> lineWentSilent();

    size_t held() const { return mHeld.size(); }
    const AssemblerStatistics& statistics() const { return mStatistics; }

  private:
    void extract(std::vector<WireFrame>& frames);
    bool extractOne(std::vector<WireFrame>& frames);
    void skipToMagic();
    void skip(size_t count);

    Bytes mHeld;
    AssemblerStatistics mStatistics;
};

}  // namespace quil::host
