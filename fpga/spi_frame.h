// The write transaction of the FPGA's SPI link, as one `write` on the device carries it:
//
//   offset  size  field
//        0     1  command, 2
//        1     4  FPGA address, most significant byte first
//        5     n  data
//    5 + n     1  trailing 0
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "common/big_endian.h"

namespace quil::fpga {

inline constexpr uint8_t kWriteCommand = 0x02;
inline constexpr size_t kCommandAt = 0, kAddressAt = 1, kDataAt = 5;
inline constexpr size_t kFrameOverhead = kDataAt + 1;

constexpr unsigned frameSize(size_t data) { return static_cast<unsigned>(data + kFrameOverhead); }

inline void putWriteHeader(uint8_t* frame, uint32_t address) {
    frame[kCommandAt] = kWriteCommand;
    common::putBe32(frame + kAddressAt, address);
}

// A frame with room for `Data` bytes, all zero at first.
template <size_t Data>
struct WriteFrame {
    static constexpr size_t kDataSize = Data;
    uint8_t bytes[Data + kFrameOverhead] = {};

    uint8_t* data() { return bytes + kDataAt; }
};

}  // namespace quil::fpga
