#include "fpga/screen/net_gap.h"

#include "common/log.h"
#include "common/pause.h"
#include "fpga/screen/block_frame.h"
#include "fpga/spi_link.h"

using quil::common::kFirmwareUpdateTag;
using quil::common::pauseS;
using quil::common::pauseUs;
using quil::fpga::frameSize;
using quil::fpga::kStepPauseUs;
using quil::fpga::PackedData;
using quil::fpga::partOf;
using quil::fpga::Rows;
using quil::fpga::sendFixedFrame;
using quil::fpga::WriteFrame;

namespace {

constexpr unsigned kBeforeEnableS = 3;

// Offsets of a sub-pixel block's parts, the same in the block and in the FPGA from its address on.
constexpr uint32_t kParameterAt = 0, kIpAt = 0x14, kEnableAt = 0x18, kRefreshAt = 0x19,
                   kFilterAt = 0x31;
constexpr size_t kParameterSize = 20, kIpSize = 4, kFilterSize = 108;

constexpr uint8_t kTopologyHeaderOn[frameSize(1)] = {0x02, 0x10, 0x01, 0x80, 0x00, 0x01, 0x00};
constexpr uint8_t kControlOff[frameSize(1)] = {0x02, 0x10, 0x00, 0x01, 0x00, 0x00, 0x00};
constexpr uint8_t kNetGapOn[frameSize(15)] = {0x02, 0x10, 0x1f, 0xf0, 0x00, 0x01, 0xff,
                                              0xff, 0xff, 0x01, 0x00, 0x00, 0x01, 0x00,
                                              0x02, 0x01, 0x00, 0x00, 0x58, 0x58, 0x00};
constexpr int kNetGapCopies = 5;

template <size_t Size>
void sendAndLog(WriteFrame<Size>& frame, const char* label) {
    spi_send_data(frame.bytes, sizeof(frame.bytes));
    quil::fpga::logFrame(label, frame.bytes, sizeof(frame.bytes));
}

template <size_t Size>
void sendPart(const st_func_offset_map_t& row, uint32_t at, const PackedData& packed,
              const char* label) {
    auto frame = partOf<Size>(row, at, packed);
    sendAndLog(frame, label);
}

// With the enable byte at 0 the parameters go whole and the filter goes twice.
void sendSubPixel(const st_func_offset_map_t& row, const PackedData& packed) {
    const bool whole = packed.at(uint64_t{row.offset} + kEnableAt) == 0;
    if (whole) {
        sendPart<kParameterSize>(row, kParameterAt, packed, "send_buff_sunpixel_param");
    } else {
        sendPart<1>(row, kParameterAt, packed, "send_buff_sunpixel_param");
    }
    sendPart<kIpSize>(row, kIpAt, packed, "send_buff_sunpixel_ip");
    auto filter = partOf<kFilterSize>(row, kFilterAt, packed);
    sendAndLog(filter, "send_buff_sunpixel_filter");
    sendPart<1>(row, kEnableAt, packed, "send_buff_sunpixel_enable");
    sendPart<1>(row, kRefreshAt, packed, "send_buff_sunpixel_refresh");
    if (whole) {
        pauseUs(kStepPauseUs);
        sendAndLog(filter, "send_buff_sunpixel_filter");
    }
}

}  // namespace

void sendNetGapeEnable(int blockNum, const unsigned char* data) {
    pauseS(kBeforeEnableS);
    const PackedData packed(data);
    for (const st_func_offset_map_t& row : Rows(blockNum)) {
        if (row.fpga_addr != quil::fpga::kSubPixelSettings) continue;
        QUIL_LOG_DEBUG(kFirmwareUpdateTag, "send_sub_pixel 0x10a45000 \n");
        sendSubPixel(row, packed);
    }
    sendFixedFrame(kTopologyHeaderOn, sizeof(kTopologyHeaderOn));
    pauseUs(kStepPauseUs);
    sendFixedFrame(kControlOff, sizeof(kControlOff));
    pauseUs(kStepPauseUs);
    // Five copies of one frame go out: deliberate.
    for (int i = 0; i < kNetGapCopies; ++i) sendFixedFrame(kNetGapOn, sizeof(kNetGapOn));
}
