// A part of a block as a write transaction.
#pragma once

#include "fpga/screen/screen_blocks.h"
#include "fpga/spi_frame.h"

namespace quil::fpga {

// A write of `Size` bytes of a block, from `at` on, to the same offset from the block's address on.
template <size_t Size>
WriteFrame<Size> partOf(const st_func_offset_map_t& row, uint32_t at, const PackedData& packed) {
    WriteFrame<Size> frame;
    putWriteHeader(frame.bytes, row.fpga_addr + at);
    packed.copy(uint64_t{row.offset} + at, frame.data(), Size);
    return frame;
}

}  // namespace quil::fpga
