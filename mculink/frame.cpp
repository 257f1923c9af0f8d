#include "mculink/frame.h"

#include <string.h>

#include "common/little_endian.h"
#include "common/log.h"
#include "common/stdout_message.h"

using quil::common::kErrorNullPointer;
using quil::common::printErrorCode;
using quil::common::printFlushed;
using quil::common::putLe16;
using quil::common::putLe32;

uint16_t g_n_lable = 0;
const uint32_t polynom = 0x04C11DB7;
uint32_t stm_sem = 0;

namespace quil::mculink {

namespace {

constexpr uint16_t kMagic = 0xBB55;
constexpr uint16_t kFixedWord = 0x0100;
constexpr uint16_t kLastLabel = 65535;
constexpr uint8_t kRequestTypeMask = 0x0F, kWriteFlag = 1U << 5, kNoFlagB = 1U << 6;

// Offsets in the frame; the request header and body count from their own start.
constexpr size_t kReservedAt = 2, kFixedWordAt = 4, kLabelAt = 6, kLengthAt = 8;
constexpr size_t kFlagsAt = 0, kFieldAAt = 1, kReservedByteAt = 3, kFieldBAt = 4, kFieldCAt = 8;
constexpr size_t kCommandAt = 0, kReservedWordAt = 4;

void putFrameHeaderStart(uint8_t* at, const quil_frame_header_t& header) {
    putLe16(at, header.magic);
    putLe16(at + kReservedAt, header.reserved);
    putLe16(at + kFixedWordAt, header.fixed_word);
    putLe16(at + kLabelAt, header.label);
}

void putRequestHeader(uint8_t* at, const quil_request_header_t& header) {
    at[kFlagsAt] = header.flags;
    putLe16(at + kFieldAAt, header.field_a);
    at[kReservedByteAt] = 0;
    putLe32(at + kFieldBAt, header.field_b);
    putLe32(at + kFieldCAt, header.field_c);
}

void putRequestBody(uint8_t* at, const quil_request_body_t& body) {
    putLe32(at + kCommandAt, body.cmd);
    putLe32(at + kReservedWordAt, body.reserved);
}

bool refuseNull(const void* pointer) {
    if (pointer != nullptr) return false;
    printErrorCode(kErrorNullPointer);
    return true;
}

}  // namespace

uint16_t takeNextLabel() {
    const uint16_t label = ++g_n_lable;
    if (label == kLastLabel) {
        QUIL_LOG_INFO(common::kServiceTag, "%s: g_n_lable > 65534\n",
                      "quil_packet_add_frame_header");
        g_n_lable = 0;
    }
    return label;
}

quil_frame_header_t frameHeader(uint16_t label, uint16_t payloadLength) {
    return {kMagic, 0, kFixedWord, label, lengthField(payloadLength)};
}

quil_request_header_t requestHeader(uint32_t reqType, uint32_t isWrite, uint32_t flagB,
                                    uint16_t fieldA, uint32_t fieldB, uint32_t fieldC) {
    auto flags = static_cast<uint8_t>(reqType & kRequestTypeMask);
    if ((isWrite & 1U) != 0) flags |= kWriteFlag;
    if (flagB == 0) flags |= kNoFlagB;
    return {flags, fieldA, fieldB, fieldC};
}

}  // namespace quil::mculink

using namespace quil::mculink;  // NOLINT: the exported functions below are this module's front

int quil_transfer_checksum(const uint8_t* data, int len) {
    if (refuseNull(data)) return -1;
    uint16_t sum = 0;
    for (int i = 0; i < len; ++i) sum = static_cast<uint16_t>(sum + data[i]);
    return sum;
}

int quil_packet_data(uint8_t* frame, const uint8_t* payload, uint16_t len,
                     quil_frame_header_t frame_header, quil_request_header_t request_header,
                     quil_request_body_t request_body) {
    if (refuseNull(frame)) return -1;
    putFrameHeaderStart(frame, frame_header);
    putLe16(frame + kLengthAt, frame_header.length);
    putRequestHeader(frame + kFrameHeaderSize, request_header);
    putRequestBody(frame + kFrameHeaderSize + kRequestHeaderSize, request_body);
    if (payload != nullptr && len > 0) memcpy(frame + kPacketHeaderSize, payload, len);

    const size_t checksumAt = kPacketHeaderSize + len;
    const int checksum = quil_transfer_checksum(frame, static_cast<int>(checksumAt));
    putLe16(frame + checksumAt, static_cast<uint16_t>(checksum));
    return 0;
}

int quil_get_packet_length(void) {
    printFlushed(
        "n_frame_header_len is %d\n"
        "n_request_header_len is %d\n"
        "n_request_body_len is %d\n"
        "n_packet_header_length is %d\n",
        static_cast<int>(kFrameHeaderSize), static_cast<int>(kRequestHeaderSize),
        static_cast<int>(kRequestBodySize), static_cast<int>(kPacketHeaderSize));
    return static_cast<int>(kPacketHeaderSize);
}

int quil_packet_add_frame_header(uint8_t* header) {
    if (refuseNull(header)) return -1;
    putFrameHeaderStart(header, frameHeader(takeNextLabel(), 0));
    return 0;
}

int quil_packet_add_request_header(uint8_t* header, uint32_t req_type, uint32_t is_write,
                                   uint32_t flag_b, uint16_t field_a, uint32_t field_b,
                                   uint32_t field_c) {
    if (refuseNull(header)) return -1;
    putRequestHeader(header, requestHeader(req_type, is_write, flag_b, field_a, field_b, field_c));
    return 0;
}

int quil_packet_add_request_body(uint8_t* body, uint32_t cmd) {
    if (refuseNull(body)) return -1;
    putRequestBody(body, {cmd, 0});
    return 0;
}
