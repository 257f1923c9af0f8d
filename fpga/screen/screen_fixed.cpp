#include "fpga/screen/screen_fixed.h"

#include <iterator>

#include "common/log.h"
#include "fpga/screen/block_frame.h"
#include "fpga/spi_link.h"

using quil::common::kFirmwareUpdateTag;
using quil::fpga::frameSize;
using quil::fpga::PackedData;
using quil::fpga::Rows;
using quil::fpga::sendFixedFrame;

namespace {

constexpr uint8_t kRegisters[][frameSize(1)] = {
    {0x02, 0x00, 0x00, 0x00, 0x20, 0x01, 0x00},
    {0x02, 0x10, 0x00, 0x07, 0x00, 0x05, 0x00},
    {0x02, 0x10, 0x00, 0x07, 0x06, 0x10, 0x00},
    {0x02, 0x03, 0x00, 0x00, 0x00, 0x05, 0x00},
};

// clang-format off
constexpr uint8_t kParameters[][frameSize(27)] = {
    {0x02, 0x00, 0x15, 0x08, 0xa0,
     0xb4, 0x12, 0x00, 0x00, 0x00, 0x00, 0xa9, 0xfd, 0x00, 0x00, 0xb4, 0x12, 0x00, 0x00,
     0xa9, 0xfd, 0x00, 0x00, 0x00, 0x00, 0xb4, 0x12, 0xa9, 0xfd, 0x01, 0x00, 0x00, 0x00},
    {0x02, 0x10, 0xa4, 0x00, 0x00,
     0xce, 0x06, 0xe3, 0x16, 0x50, 0x02, 0x00, 0x00, 0x55, 0xfc, 0xab, 0xf3, 0x00, 0x10,
     0x00, 0x20, 0x00, 0x10, 0x78, 0xf1, 0x88, 0xfe, 0x00, 0x20, 0x00, 0x00, 0x00, 0x00},
    {0x02, 0x10, 0xa4, 0x02, 0x00,
     0x00, 0x10, 0x00, 0x00, 0x32, 0x19, 0xce, 0xe6, 0x00, 0x10, 0x01, 0xfd, 0x83, 0xf8,
     0x7c, 0x0a, 0x00, 0x10, 0xb1, 0x1d, 0x00, 0x00, 0x4f, 0xe2, 0x01, 0x00, 0x00, 0x00},
};
// clang-format on

// Bytes of a block that also go to addresses of their own.
constexpr size_t kHalfSubPixelTable = 256;
struct SingleByte {
    uint32_t block;
    uint32_t at;  // offset in the block, and in the FPGA from the block's address on
    const char* sent;
};
constexpr SingleByte kSingleBytes[] = {
    {quil::fpga::kControlBlock, 27, "fpga_addr 1000011b write size = %d\n"},
    {quil::fpga::kReceivingFirst, 265, "fpga_addr 10200109 write size = %d\n"},
};
constexpr const char* kHalfSent[] = {"fpga_addr 10a43000 write size = %d\n",
                                     "fpga_addr 10a43100 write size = %d\n"};

template <size_t Size>
void sendPart(const st_func_offset_map_t& row, uint32_t at, const PackedData& packed,
              const char* sent) {
    auto frame = quil::fpga::partOf<Size>(row, at, packed);
    const int result = spi_send_data(frame.bytes, sizeof(frame.bytes));
    QUIL_LOG_DEBUG(kFirmwareUpdateTag, sent, result);
}

void sendParts(const st_func_offset_map_t& row, const PackedData& packed) {
    if (row.fpga_addr == quil::fpga::kSubPixelTable) {
        sendPart<kHalfSubPixelTable>(row, 0, packed, kHalfSent[0]);
        sendPart<kHalfSubPixelTable>(row, kHalfSubPixelTable, packed, kHalfSent[1]);
    }
    for (const SingleByte& byte : kSingleBytes) {
        if (row.fpga_addr == byte.block) sendPart<1>(row, byte.at, packed, byte.sent);
    }
}

}  // namespace

void sendFixedParameter(int blockNum, const unsigned char* data) {
    for (const auto& frame : kRegisters) sendFixedFrame(frame, sizeof(frame));
    for (const auto& frame : kParameters) sendFixedFrame(frame, sizeof(frame));
    const PackedData packed(data);
    for (const st_func_offset_map_t& row : Rows(blockNum)) sendParts(row, packed);
}
