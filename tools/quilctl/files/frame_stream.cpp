#include "tools/quilctl/files/frame_stream.h"

#include <algorithm>

#include "host/wire_frame.h"

namespace quil::tools {
namespace {

namespace wire = host::wire;

// The size that a frame at the start of these bytes would have; 0 when none can begin there.
size_t sizeAt(host::ByteView bytes) {
    if (bytes.size() < wire::kFrameHeaderSize) return 0;
    return host::announcedSize(bytes.first(wire::kFrameHeaderSize)).value_or(0);
}

size_t frameAt(host::ByteView bytes) {
    const size_t size = sizeAt(bytes);
    if (size == 0 || size > bytes.size()) return 0;
    return host::checksumHolds(bytes.first(size)) ? size : 0;
}

std::string remarkOn(host::ByteView bytes) {
    const size_t size = sizeAt(bytes);
    if (size == 0) return "no frame begins here";
    if (size > bytes.size()) {
        return "a frame of " + std::to_string(size) + " bytes that is cut off";
    }
    return "a frame of " + std::to_string(size) + " bytes with a wrong checksum";
}

class Splitter {
  public:
    explicit Splitter(const Bytes& bytes) : mBytes(bytes) {}

    std::vector<StreamPart> split() {
        for (size_t at = 0; at < mBytes.size();) {
            const size_t size = frameAt(mBytes.from(at));
            if (size == 0) {
                ++at;
                continue;
            }
            endJunk(at);
            mParts.push_back({at, size, true, ""});
            at += size;
            mJunkAt = at;
        }
        endJunk(mBytes.size());
        return std::move(mParts);
    }

  private:
    void endJunk(size_t end) {
        if (end == mJunkAt) return;
        const auto junk = mBytes.from(mJunkAt).first(end - mJunkAt);
        mParts.push_back({mJunkAt, junk.size(), false, remarkOn(junk)});
        mJunkAt = end;
    }

    const host::ByteView mBytes;
    size_t mJunkAt = 0;
    std::vector<StreamPart> mParts;
};

}  // namespace

std::vector<StreamPart> partsOf(const Bytes& bytes) { return Splitter(bytes).split(); }

}  // namespace quil::tools
