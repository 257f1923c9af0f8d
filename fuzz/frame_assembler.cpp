// The MCU's byte stream, cut into pieces. Input: a byte from which the sizes of the pieces follow,
// then the stream.
#include "host/frame_assembler.h"

#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/targets.h"

namespace quil::fuzz {
namespace {

using host::Bytes;
using host::FrameAssembler;
using host::WireFrame;

// The frames of a whole stream, straight from the definition: try every byte as a frame's start.
std::vector<Bytes> framesOf(std::span<const uint8_t> stream) {
    std::vector<Bytes> frames;
    while (stream.size() >= host::wire::kOverhead) {
        const auto size = host::announcedSize(stream);
        if (size && *size <= stream.size() && host::checksumHolds(stream.first(*size))) {
            frames.emplace_back(stream.begin(), stream.begin() + static_cast<ptrdiff_t>(*size));
            stream = stream.subspan(*size);
        } else {
            stream = stream.subspan(1);
        }
    }
    return frames;
}

bool equals(const WireFrame& left, const WireFrame& right) {
    return left.label == right.label && left.flags == right.flags && left.fieldA == right.fieldA &&
           left.fieldB == right.fieldB && left.fieldC == right.fieldC &&
           left.command == right.command && left.payload == right.payload;
}

void append(std::vector<WireFrame>& frames, std::vector<WireFrame> more) {
    frames.insert(frames.end(), more.begin(), more.end());
}

std::vector<WireFrame> feedInPieces(FrameAssembler& assembler, std::span<const uint8_t> stream,
                                    uint32_t seed) {
    std::vector<WireFrame> frames;
    Input input(stream);
    while (!input.empty()) {
        seed = seed * 1103515245 + 12345;
        append(frames, assembler.feed(input.take(1 + (seed >> 16) % 97)));
        check(assembler.held() <= host::wire::kFrameMax, "holds more than a longest frame");
    }
    append(frames, assembler.lineWentSilent());
    check(assembler.held() == 0, "holds something after a silence");
    return frames;
}

// A frame that is built from these fields parses to the same fields.
void checkRoundTrip(const WireFrame& frame) {
    const Bytes bytes = host::buildFrame(frame);
    check(host::frameProblems(bytes).empty(), "a built frame has problems");
    check(equals(host::parseFrame(bytes), frame), "a built frame has other fields");
}

void checkResynchronised(FrameAssembler& assembler) {
    WireFrame good;
    good.label = 0xBB55;  // looks like the magic, in the middle of a frame
    good.payload = {0x55, 0xBB, 0x00};
    const auto frames = assembler.feed(host::buildFrame(good));
    check(frames.size() == 1 && equals(frames[0], good), "a good frame after the stream is lost");
}

}  // namespace

void frameAssembler(std::span<const uint8_t> bytes) {
    Input input(bytes);
    const uint8_t seed = input.byte();
    const auto stream = input.rest();
    const std::vector<Bytes> expected = framesOf(stream);

    FrameAssembler assembler;
    const auto frames = feedInPieces(assembler, stream, seed);
    check(frames.size() == expected.size(), "other frames than the stream has");
    size_t taken = 0;
    for (size_t i = 0; i < frames.size(); ++i) {
        check(equals(frames[i], host::parseFrame(expected[i])), "a frame with other fields");
        checkRoundTrip(frames[i]);
        taken += expected[i].size();
    }
    check(assembler.statistics().frames == frames.size(), "frames are counted wrong");
    check(assembler.statistics().skippedBytes == stream.size() - taken, "skipped is counted wrong");
    checkResynchronised(assembler);
}

}  // namespace quil::fuzz
