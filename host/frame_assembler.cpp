#include "host/frame_assembler.h"

#include <algorithm>

namespace quil::host {

std::vector<WireFrame> FrameAssembler::feed(ByteView bytes) {
    std::vector<WireFrame> frames;
    while (!bytes.empty()) {
        const size_t room = wire::kFrameMax - mHeld.size();
        const auto piece = bytes.first(std::min(room, bytes.size()));
        mHeld.insert(mHeld.end(), piece.begin(), piece.end());
        bytes = bytes.from(piece.size());
        extract(frames);  // a full buffer always gives something up, so room is never 0
    }
    return frames;
}

std::vector<WireFrame> FrameAssembler::lineWentSilent() {
    std::vector<WireFrame> frames;
    while (!mHeld.empty()) {
        ++mStatistics.abandoned;
        skip(1);
        extract(frames);
    }
    return frames;
}

void FrameAssembler::extract(std::vector<WireFrame>& frames) {
    while (extractOne(frames)) {
    }
}

// One step forward in the held bytes: a frame taken or something skipped. False when more must
// come.
bool FrameAssembler::extractOne(std::vector<WireFrame>& frames) {
    skipToMagic();
    if (mHeld.size() < wire::kFrameHeaderSize) return false;
    const auto size = announcedSize(mHeld);
    if (!size) {
        ++mStatistics.badHeaders;
        skip(1);
        return true;
    }
    if (mHeld.size() < *size) return false;
    const ByteView whole(mHeld.data(), *size);
    if (!checksumHolds(whole)) {
        ++mStatistics.badChecksums;
        skip(1);
        return true;
    }
    frames.push_back(parseFrame(whole));
    ++mStatistics.frames;
    mHeld.erase(mHeld.begin(), mHeld.begin() + static_cast<ptrdiff_t>(*size));
    return true;
}

void FrameAssembler::skipToMagic() {
    constexpr uint8_t magic[] = {wire::kMagic & 0xFF, wire::kMagic >> 8};
    auto start = std::search(mHeld.begin(), mHeld.end(), std::begin(magic), std::end(magic));
    // The first half of a magic may stand at the very end, its second half still on the line.
    if (start == mHeld.end() && !mHeld.empty() && mHeld.back() == magic[0]) --start;
    skip(static_cast<size_t>(start - mHeld.begin()));
}

void FrameAssembler::skip(size_t count) {
    mStatistics.skippedBytes += count;
    mHeld.erase(mHeld.begin(), mHeld.begin() + static_cast<ptrdiff_t>(count));
}

}  // namespace quil::host
