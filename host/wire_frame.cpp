#include "host/wire_frame.h"

#include <assert.h>
#include <stdio.h>

#include <numeric>

namespace quil::host {
namespace {

void store16(Bytes& bytes, size_t at, uint16_t value) {
    bytes[at] = static_cast<uint8_t>(value);
    bytes[at + 1] = static_cast<uint8_t>(value >> 8);
}

void store32(Bytes& bytes, size_t at, uint32_t value) {
    store16(bytes, at, static_cast<uint16_t>(value));
    store16(bytes, at + 2, static_cast<uint16_t>(value >> 16));
}

struct FixedField {
    size_t at;
    size_t size;
    uint32_t value;
    const char* name;
};

constexpr FixedField kFixedFields[] = {
    {wire::kMagicAt, 2, wire::kMagic, "magic"},
    {wire::kReservedAt, 2, 0, "reserved word"},
    {wire::kFixedWordAt, 2, wire::kFixedWord, "fixed word"},
    {wire::kPadAt, 1, 0, "reserved byte"},
    {wire::kTailAt, 4, 0, "reserved word"},
};

uint32_t loadField(ByteView bytes, const FixedField& field) {
    uint32_t value = 0;
    for (size_t i = 0; i < field.size; ++i) value |= uint32_t{bytes[field.at + i]} << (8 * i);
    return value;
}

template <typename... Values>
std::string formatted(const char* format, Values... values) {
    char text[128];
    snprintf(text, sizeof(text), format, values...);
    return text;
}

}  // namespace

uint16_t load16(ByteView bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

uint32_t load32(ByteView bytes, size_t at) {
    return load16(bytes, at) | static_cast<uint32_t>(load16(bytes, at + 2)) << 16;
}

uint16_t frameChecksum(ByteView bytes) {
    return static_cast<uint16_t>(std::accumulate(bytes.begin(), bytes.end(), 0u));
}

bool checksumHolds(ByteView frame) {
    const size_t sumAt = frame.size() - wire::kChecksumSize;
    return load16(frame, sumAt) == frameChecksum(frame.first(sumAt));
}

std::optional<size_t> announcedSize(ByteView header) {
    if (load16(header, wire::kMagicAt) != wire::kMagic) return std::nullopt;
    if (load16(header, wire::kReservedAt) != 0) return std::nullopt;
    if (load16(header, wire::kFixedWordAt) != wire::kFixedWord) return std::nullopt;
    const size_t length = load16(header, wire::kLengthAt);
    const size_t size = length + wire::kFrameHeaderSize;
    if (length < wire::kLengthMin || size > wire::kFrameMax) return std::nullopt;
    return size;
}

std::vector<std::string> frameProblems(ByteView bytes) {
    if (bytes.size() < wire::kOverhead) {
        return {formatted("%zu bytes are no frame: the shortest has %zu", bytes.size(),
                          wire::kOverhead)};
    }
    std::vector<std::string> problems;
    for (const FixedField& field : kFixedFields) {
        const uint32_t value = loadField(bytes, field);
        if (value == field.value) continue;
        problems.push_back(formatted("%s at offset %zu is 0x%X, expected 0x%X", field.name,
                                     field.at, value, field.value));
    }
    const size_t length = load16(bytes, wire::kLengthAt);
    const size_t actual = bytes.size() - wire::kFrameHeaderSize;
    if (length != actual) {
        problems.push_back(
            formatted("length is %zu, but %zu bytes follow the frame header", length, actual));
    }
    if (bytes.size() > wire::kFrameMax) {
        problems.push_back(formatted("%zu bytes are more than the longest frame, %zu", bytes.size(),
                                     wire::kFrameMax));
    }
    if (!checksumHolds(bytes)) {
        const size_t sumAt = bytes.size() - wire::kChecksumSize;
        problems.push_back(formatted("checksum is 0x%04X, the bytes add up to 0x%04X",
                                     unsigned{load16(bytes, sumAt)},
                                     unsigned{frameChecksum(bytes.first(sumAt))}));
    }
    return problems;
}

WireFrame parseFrame(ByteView bytes) {
    assert(bytes.size() >= wire::kOverhead);
    WireFrame frame;
    frame.label = load16(bytes, wire::kLabelAt);
    frame.flags = bytes[wire::kFlagsAt];
    frame.fieldA = load16(bytes, wire::kFieldAAt);
    frame.fieldB = load32(bytes, wire::kFieldBAt);
    frame.fieldC = load32(bytes, wire::kFieldCAt);
    frame.command = load32(bytes, wire::kCommandAt);
    frame.payload.assign(bytes.begin() + wire::kPayloadAt, bytes.end() - wire::kChecksumSize);
    return frame;
}

Bytes buildFrame(const WireFrame& frame) {
    assert(frame.payload.size() <= wire::kPayloadMax);
    Bytes bytes(wire::kPayloadAt);
    for (const FixedField& field : kFixedFields) {
        for (size_t i = 0; i < field.size; ++i) {
            bytes[field.at + i] = static_cast<uint8_t>(field.value >> (8 * i));
        }
    }
    store16(bytes, wire::kLabelAt, frame.label);
    store16(bytes, wire::kLengthAt, static_cast<uint16_t>(frame.payload.size() + wire::kLengthMin));
    bytes[wire::kFlagsAt] = frame.flags;
    store16(bytes, wire::kFieldAAt, frame.fieldA);
    store32(bytes, wire::kFieldBAt, frame.fieldB);
    store32(bytes, wire::kFieldCAt, frame.fieldC);
    store32(bytes, wire::kCommandAt, frame.command);
    bytes.insert(bytes.end(), frame.payload.begin(), frame.payload.end());
    const uint16_t sum = frameChecksum(bytes);
    bytes.push_back(static_cast<uint8_t>(sum));
    bytes.push_back(static_cast<uint8_t>(sum >> 8));
    return bytes;
}

}  // namespace quil::host
