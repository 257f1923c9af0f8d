#include "tools/quilctl/files/frame_fields.h"

#include <stdio.h>

#include <utility>

namespace quil::tools {
namespace {

namespace wire = host::wire;

struct FieldRow {
    size_t at, size;
    const char* name;
};

constexpr FieldRow kFrameFields[] = {
    {wire::kMagicAt, 2, "magic"},     {wire::kReservedAt, 2, "reserved"},
    {wire::kFixedWordAt, 2, "fixed"}, {wire::kLabelAt, 2, "label"},
    {wire::kLengthAt, 2, "length"},   {wire::kFlagsAt, 1, "flags"},
    {wire::kFieldAAt, 2, "field_a"},  {wire::kPadAt, 1, "reserved"},
    {wire::kFieldBAt, 4, "field_b"},  {wire::kFieldCAt, 4, "field_c"},
    {wire::kCommandAt, 4, "command"}, {wire::kTailAt, 4, "reserved"},
};

std::string littleIn(host::ByteView bytes) {
    uint32_t value = 0;
    for (size_t i = 0; i < bytes.size(); ++i) value |= uint32_t{bytes[i]} << (8 * i);
    char text[16];
    snprintf(text, sizeof(text), "0x%0*X", static_cast<int>(2 * bytes.size()), value);
    return text;
}

std::string meaningOf(uint8_t flags) {
    const int type = flags & wire::kTypeMask;
    const char* name = type == wire::kTypeRequest  ? "request"
                       : type == wire::kTypeAnswer ? "answer"
                                                   : "unknown type";
    return std::string("  ") + name + ((flags & wire::kWriteFlag) != 0 ? ", set" : ", get");
}

}  // namespace

std::vector<DecodedField> frameFields(host::ByteView frame) {
    std::vector<DecodedField> fields;
    for (const FieldRow& row : kFrameFields) {
        std::string value = littleIn(frame.from(row.at).first(row.size));
        if (row.at == wire::kFlagsAt) value += meaningOf(frame[row.at]);
        fields.push_back({row.name, row.at, row.size, std::move(value)});
    }
    const size_t sumAt = frame.size() - wire::kChecksumSize;
    fields.push_back({"payload", wire::kPayloadAt, sumAt - wire::kPayloadAt, ""});
    fields.push_back(
        {"checksum", sumAt, wire::kChecksumSize,
         littleIn(frame.from(sumAt)) + (host::checksumHolds(frame) ? "  good" : "  wrong")});
    return fields;
}

}  // namespace quil::tools
