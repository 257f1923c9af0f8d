#include "mculink/request.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include "common/heap_block.h"
#include "common/log.h"
#include "common/stdout_message.h"

using quil::common::allocateBlock;
using quil::common::HeapBlock;
using quil::common::kErrorNoMemory;
using quil::common::kErrorNullPointer;
using quil::common::kServiceTag;
using quil::common::printErrorCode;
using namespace quil::mculink;  // NOLINT: this file is the module's exported front

namespace {

struct WorkBlock {
    uint8_t frame[kFrameMax];
    uint32_t length;  // of the whole frame, in bytes
};

void dumpBytes(const uint8_t* data, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        QUIL_LOG_DEBUG(kServiceTag, "data[%u]:0x%02x ", static_cast<unsigned>(i), data[i]);
    }
}

void fillDescriptor(quil_request_param_t& param, uint32_t cmd, uint8_t isWrite) {
    param = {};
    param.param0 = 1;
    param.param1 = 1;
    param.param2 = 100;
    param.param3 = 2000;
    param.is_write = isWrite;
    param.req_type = 1;
    param.cmd = cmd;
    param.field_a = 1;
}

void buildFrame(WorkBlock& block, const uint8_t* payload, uint16_t len, uint16_t label,
                const quil_request_header_t& header, const quil_request_body_t& body) {
    block.length = static_cast<uint32_t>(kPacketHeaderSize + len + kChecksumSize);
    memset(block.frame, 0, block.length);
    quil_packet_data(block.frame, payload, len, frameHeader(label, len), header, body);
}

// The work block of one request, or null when it cannot be had or the payload does not fit it.
HeapBlock<WorkBlock> allocateWorkBlock(uint16_t len) {
    if (len > kPayloadMax) {
        QUIL_LOG_ERROR(kServiceTag, "%s: payload length %u is above %u\n", "quil_request",
                       static_cast<unsigned>(len), static_cast<unsigned>(kPayloadMax));
        return nullptr;
    }
    auto block = allocateBlock<WorkBlock>(sizeof(WorkBlock));
    if (block == nullptr) QUIL_LOG_DEBUG(kServiceTag, "error code %d", kErrorNoMemory);
    return block;
}

}  // namespace

int send_mcu_message(uint32_t cmd, uint8_t is_write, const uint8_t* payload, uint16_t len, int fd) {
    const auto param = allocateBlock<quil_request_param_t>(sizeof(quil_request_param_t));
    if (param == nullptr) {
        printErrorCode(kErrorNoMemory);
        return -1;
    }
    fillDescriptor(*param, cmd, is_write);
    return quil_request(payload, len, param.get(), fd);
}

int quil_request(const uint8_t* payload, uint16_t len, quil_request_param_t* param, int fd) {
    QUIL_LOG_DEBUG(kServiceTag, "%s: is called\n", __func__);
    if (param == nullptr) {
        printErrorCode(kErrorNullPointer);
        return -1;
    }
    QUIL_LOG_DEBUG(kServiceTag, "sdk_packet_add_frame_header1\n");
    const uint16_t label = takeNextLabel();
    QUIL_LOG_DEBUG(kServiceTag, "sdk_packet_add_frame_header2\n");
    const quil_request_header_t header =
        requestHeader(param->req_type, param->is_write, param->flag_b, param->field_a,
                      param->field_b, param->field_c);
    QUIL_LOG_DEBUG(kServiceTag, "sdk_packet_add_frame_header3\n");
    const quil_request_body_t body = {param->cmd, 0};
    QUIL_LOG_DEBUG(kServiceTag, "sdk_packet_add_frame_header4\n");
    // The header's length, not the frame's: tools read this line as it stands.
    const int headerLength = quil_get_packet_length();
    QUIL_LOG_DEBUG(kServiceTag, "sdk_packet_add_frame_header5,n_send_len is %d\n", headerLength);

    const auto block = allocateWorkBlock(len);
    if (block == nullptr) return -1;
    QUIL_LOG_DEBUG(kServiceTag, "sdk_packet_add_frame_header6\n");
    buildFrame(*block, payload, len, label, header, body);
    QUIL_LOG_DEBUG(kServiceTag, "sdk_packet_add_frame_header7\n");
    const int result = quil_physical_send(block->frame, block->length, fd);
    if (result < 0) {
        // The number is always 0: nothing is received here.
        QUIL_LOG_ERROR(kServiceTag, "%s: quil_physical_send failed, n_recv_len = %d\n", __func__,
                       0);
    }
    QUIL_LOG_DEBUG(kServiceTag, "%s: is end\n", __func__);
    return result;
}

int quil_physical_send(const uint8_t* frame, size_t count, int fd) {
    QUIL_LOG_DEBUG(kServiceTag, "%s: fd = %d\n", __func__, fd);
    if (frame == nullptr) {
        printErrorCode(kErrorNullPointer);
        return -1;
    }
    dumpBytes(frame, count);
    const auto result = static_cast<int>(write(fd, frame, count));
    if (result < 0) {
        QUIL_LOG_ERROR(kServiceTag, "%s: write fd(%d) err(%s)\n", __func__, fd, strerror(errno));
    }
    return result;
}

void printsend(const uint8_t* data, unsigned len) {
    if (data == nullptr) {
        printErrorCode(kErrorNullPointer);
        return;
    }
    dumpBytes(data, len);
}
