// The frame of the MCU link, as the host side reads and writes it. Both directions have one shape,
// all fields little-endian:
//   0 magic 55 BB | 2 reserved 00 00 | 4 fixed word 00 01 | 6 label | 8 length (payload + 22)
//   10 flags | 11 field A (16 bit) | 13 reserved | 14 field B | 18 field C
//   22 command | 26 reserved | 30 payload | 16-bit sum of everything before it
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

#include "host/byte_view.h"

namespace quil::host {

using Bytes = std::vector<uint8_t>;

namespace wire {
constexpr uint16_t kMagic = 0xBB55;
constexpr uint16_t kFixedWord = 0x0100;
constexpr size_t kMagicAt = 0, kReservedAt = 2, kFixedWordAt = 4, kLabelAt = 6, kLengthAt = 8;
constexpr size_t kFlagsAt = 10, kFieldAAt = 11, kPadAt = 13, kFieldBAt = 14, kFieldCAt = 18;
constexpr size_t kCommandAt = 22, kTailAt = 26, kPayloadAt = 30;
constexpr size_t kFrameHeaderSize = 10, kChecksumSize = 2;
constexpr size_t kOverhead = kPayloadAt + kChecksumSize;
constexpr size_t kFrameMax = 4144;
constexpr size_t kPayloadMax = kFrameMax - kOverhead;
constexpr size_t kLengthMin = kOverhead - kFrameHeaderSize;
static_assert(kLengthMin == 22 && kPayloadMax == 4112);

constexpr uint8_t kTypeMask = 0x0F, kTypeRequest = 1, kTypeAnswer = 2;
constexpr uint8_t kWriteFlag = 1u << 5, kNoFlagWord = 1u << 6;
}  // namespace wire

struct WireFrame {
    uint16_t label = 0;
    uint8_t flags = wire::kTypeRequest | wire::kNoFlagWord;
    uint16_t fieldA = 1;
    uint32_t fieldB = 0;
    uint32_t fieldC = 0;
    uint32_t command = 0;
    Bytes payload{};

    bool isWrite() const { return (flags & wire::kWriteFlag) != 0; }
    bool isAnswer() const { return (flags & wire::kTypeMask) == wire::kTypeAnswer; }
};

// Little-endian access; the caller has checked that the bytes are there.
uint16_t load16(ByteView bytes, size_t at);
uint32_t load32(ByteView bytes, size_t at);

uint16_t frameChecksum(ByteView bytes);

// Whether the last two bytes of a whole frame are the sum of those before them.
bool checksumHolds(ByteView frame);

// The size that a frame header announces, or nothing when the ten bytes cannot start a frame.
std::optional<size_t> announcedSize(ByteView header);

// Everything that is wrong with one whole frame, in the order of its bytes; empty for a good one.
std::vector<std::string> frameProblems(ByteView bytes);

// Takes the fields apart without judging them; needs at least wire::kOverhead bytes.
WireFrame parseFrame(ByteView bytes);

// The payload must not be longer than wire::kPayloadMax.
Bytes buildFrame(const WireFrame& frame);

}  // namespace quil::host
