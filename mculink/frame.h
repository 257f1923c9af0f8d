// The frame that carries a request to the MCU, and the exported helpers that build it.
//
// All multi-byte fields are little-endian; N is the payload length in bytes.
//
//   offset  size  field
//        0     2  magic 0xBB55
//        2     2  reserved, 0
//        4     2  fixed word 0x0100
//        6     2  label
//        8     2  length: N + 22, the bytes after the frame header, checksum included
//       10     1  request flags
//       11     2  field_a
//       13     1  reserved, 0
//       14     4  field_b
//       18     4  field_c
//       22     4  command
//       26     4  reserved, 0
//       30     N  payload
//   30 + N     2  checksum: 16-bit sum of all bytes before it
//
// The label is shared without a lock: one thread builds frames. Beside it the functions touch their
// arguments and standard output only.
#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include "common/export.h"

#ifdef __cplusplus
namespace quil::mculink {

inline constexpr size_t kFrameHeaderSize = 10, kRequestHeaderSize = 12, kRequestBodySize = 8;
inline constexpr size_t kPacketHeaderSize =
    kFrameHeaderSize + kRequestHeaderSize + kRequestBodySize;
inline constexpr size_t kChecksumSize = 2;
inline constexpr size_t kFrameMax = 4144;
inline constexpr size_t kPayloadMax = kFrameMax - kPacketHeaderSize - kChecksumSize;
static_assert(kPacketHeaderSize == 30 && kPayloadMax == 4112);

// What the length field counts for a payload of `payload` bytes.
constexpr uint16_t lengthField(uint16_t payload) {
    return static_cast<uint16_t>(payload + kRequestHeaderSize + kRequestBodySize + kChecksumSize);
}

// Increments g_n_lable and returns the label of the next frame, 1 to 65535; 0 is never sent.
uint16_t takeNextLabel();

}  // namespace quil::mculink

extern "C" {
#endif

// The request descriptor, one per request; a packed record in memory, never on the wire.
typedef struct __attribute__((packed)) quil_request_param {
    uint32_t param0;    // not used by the framing
    uint32_t param1;    // not used by the framing
    uint32_t param2;    // not used by the framing
    uint32_t param3;    // not used by the framing
    uint32_t param4;    // not used by the framing
    uint32_t is_write;  // bit 0 becomes bit 5 of the request flags: 1 set, 0 get
    uint32_t flag_b;    // 0 sets bit 6 of the request flags
    uint32_t param7;    // not used by the framing
    uint32_t req_type;  // the low 4 bits become bits 0 to 3 of the request flags
    uint32_t cmd;       // the command
    uint16_t field_a;   // as on the wire
    uint32_t field_b;   // as on the wire
    uint32_t field_c;   // as on the wire
} quil_request_param_t;
static_assert(sizeof(quil_request_param_t) == 50, "other components share this record");
static_assert(offsetof(quil_request_param_t, cmd) == 36, "packed, in order");
static_assert(offsetof(quil_request_param_t, field_c) == 46, "packed, in order");

// The header fields of a frame, by value; on the wire each is little-endian.
typedef struct quil_frame_header {
    uint16_t magic;       // 0xBB55
    uint16_t reserved;    // 0
    uint16_t fixed_word;  // 0x0100
    uint16_t label;       // 1 to 65535
    uint16_t length;      // payload + 22
} quil_frame_header_t;

// The request header by value. Not packed: its offsets are not those of the wire.
typedef struct quil_request_header {
    uint8_t flags;  // bits 0 to 3 request type, bit 5 is_write, bit 6 set when flag_b is 0
    uint16_t field_a;
    uint32_t field_b;
    uint32_t field_c;
} quil_request_header_t;

// The request body, by value.
typedef struct quil_request_body {
    uint32_t cmd;       // the command
    uint32_t reserved;  // 0
} quil_request_body_t;

// The label of the last frame built; 0 before the first and after label 65535. Process-wide. The
// service logs it when an answer does not come.
extern QUIL_EXPORT uint16_t g_n_lable;

// The CRC-32 generator polynomial, for other components; the frame checksum is a plain sum.
extern QUIL_EXPORT const uint32_t polynom;

// A zero word that other components link against; no code of this library uses it.
extern QUIL_EXPORT uint32_t stm_sem;

// The sum of `len` bytes modulo 65536; 0 for a `len` of 0 or less. A null `data` prints error code
// -4004 to standard output and gives -1.
QUIL_EXPORT int quil_transfer_checksum(const uint8_t* data, int len);

// Writes header, payload (unless it is null: its bytes then stay as they are) and checksum to
// `frame`, which must have room for `len` + 32 bytes. `len`: payload bytes, at most 4112 for a
// frame that quil_request would send. Returns 0; a null `frame` prints error code -4004, gives -1.
QUIL_EXPORT int quil_packet_data(uint8_t* frame, const uint8_t* payload, uint16_t len,
                                 quil_frame_header_t frame_header,
                                 quil_request_header_t request_header,
                                 quil_request_body_t request_body);

// Prints the four header lengths to standard output and returns that of the packet header, 30.
QUIL_EXPORT int quil_get_packet_length(void);

// Writes magic, reserved word, fixed word and the next label to the 10 bytes at `header`; the
// length field, its last two bytes, is left alone. Returns 0; null: error code -4004, -1 (no label
// is taken).
QUIL_EXPORT int quil_packet_add_frame_header(uint8_t* header);

// Writes the 12 bytes of the request header. Returns 0; null: error code -4004, -1.
QUIL_EXPORT int quil_packet_add_request_header(uint8_t* header, uint32_t req_type,
                                               uint32_t is_write, uint32_t flag_b, uint16_t field_a,
                                               uint32_t field_b, uint32_t field_c);

// Writes the 8 bytes of the request body. Returns 0; null: error code -4004, -1.
QUIL_EXPORT int quil_packet_add_request_body(uint8_t* body, uint32_t cmd);

#ifdef __cplusplus
}  // extern "C"

namespace quil::mculink {

// The header fields that a descriptor stands for.
quil_frame_header_t frameHeader(uint16_t label, uint16_t payloadLength);
quil_request_header_t requestHeader(uint32_t reqType, uint32_t isWrite, uint32_t flagB,
                                    uint16_t fieldA, uint32_t fieldB, uint32_t fieldC);

}  // namespace quil::mculink
#endif
